// The dialogs that change local groups: create, edit (rename and describe)
// and delete several at once.
//
// Each function opens a modal dialog (dialog.js) and calls `done()` after a
// successful change so that the caller can load its list again. Results are
// shown in the page's status region, refusals inside the dialog, which stays
// open so that the person can correct the name.

import { call } from './api.js';
import { h } from './dom.js';
import { openDialog, textField } from './dialog.js';
import { describeCode, describeError } from './messages.js';
import { showError, showNotice } from './status.js';
import { onChange } from './live.js';

const NAME_HINT = 'Up to 32 bytes; no spaces or any of : , / \\ @ " \' # ; and not only digits.';
const DESCRIPTION_MAX = 256;

// A failed request inside a dialog: the sentence to show there. An expired
// session closes the dialog, since the login form takes over the page.
function refusal(err, context) {
  if (err && err.kind === 'expired') return true;
  return describeError(err, context);
}

export function openCreateDialog(done) {
  openDialog({
    title: 'New group',
    submitLabel: 'Create group',
    content: [
      textField({ name: 'name', label: 'Group name', required: true, hint: NAME_HINT }),
      textField({ name: 'description', label: 'Description (optional)', maxlength: DESCRIPTION_MAX }),
    ],
    async onSubmit(form) {
      const name = form.elements.name.value.trim();
      const description = form.elements.description.value.trim();
      if (name === '') return 'Please enter a name for the new group.';
      try {
        const data = await call('TAVO.Core.Group', 'create', { name, description });
        showNotice(`The group "${data.name ?? name}" was created.`);
      } catch (err) {
        return refusal(err, 'create');
      }
      await done();
      return true;
    },
  });
}

// The two built-in groups keep their names; the appliance refuses to rename them.
const BUILT_IN = ['administrators', 'users'];

// Someone else may rename, describe anew or delete the group while its
// dialog is open: each notice of a change to the groups looks the group up
// again by its GID and explains what changed in the dialog. A name field the
// person has not touched follows a rename, so that saving keeps the other
// person's name; what the person typed is never replaced.
function followGroup(group, known, opened) {
  return async (what) => {
    // The person's own save is not someone else's change.
    if (!what.groups || known.saving) return;
    let current;
    try {
      const data = await call('TAVO.Core.Group', 'get', { gid: group.gid });
      current = Array.isArray(data.groups) ? data.groups[0] : undefined;
    } catch (err) {
      return; // looked at again with the next notice
    }
    const nameInput = opened.form.elements.name;
    if (!current) {
      opened.explain(`Someone else deleted the group "${known.name}" while this dialog was open. There is nothing left to save.`);
      opened.submit.disabled = true;
      return;
    }
    const lines = [];
    const name = String(current.name);
    const description = String(current.description ?? '');
    if (name !== known.name) {
      lines.push(`Someone else renamed the group "${known.name}" to "${name}" while this dialog was open.`);
      if (nameInput.value.trim() === known.name) nameInput.value = name;
      known.name = name;
    }
    if (description !== known.description) {
      lines.push(`Someone else changed its description to "${description}". Saving replaces it with the description below.`);
      known.description = description;
    }
    if (lines.length > 0) opened.explain(lines);
  };
}

export function openEditDialog(group, done) {
  const builtIn = BUILT_IN.includes(String(group.name).toLowerCase());
  // The group as last seen: the name a save compares the field with.
  const known = { name: String(group.name), description: String(group.description ?? '') };
  const nameField = textField({
    name: 'name',
    label: 'Group name',
    value: group.name,
    required: true,
    hint: builtIn ? 'Built-in groups keep their names; only the description can be changed.' : NAME_HINT,
  });
  if (builtIn) nameField.querySelector('input').readOnly = true;
  let unfollow = null;
  const opened = openDialog({
    title: `Edit group "${group.name}"`,
    submitLabel: 'Save changes',
    onClose: () => unfollow?.(),
    content: [
      nameField,
      textField({ name: 'description', label: 'Description', value: group.description ?? '', maxlength: DESCRIPTION_MAX }),
      h('p', { class: 'hint' }, `Group ID ${group.gid} stays the same; members stay in the group.`),
    ],
    async onSubmit(form) {
      const newName = form.elements.name.value.trim();
      const description = form.elements.description.value.trim();
      if (newName === '') return 'Please enter a name for the group.';
      // The name is sent only when it changes, so that saving a description
      // never touches the name (nor trips over a reserved one).
      const params = { gid: group.gid, description };
      const oldName = known.name;
      if (newName !== oldName) params.new_name = newName;
      let data;
      known.saving = true;
      try {
        data = await call('TAVO.Core.Group', 'set', params);
      } catch (err) {
        return refusal(err, 'rename');
      } finally {
        known.saving = false;
      }
      unfollow();
      const finalName = data.name ?? newName;
      showNotice(finalName !== oldName
        ? `The group "${oldName}" was renamed to "${finalName}".`
        : `The group "${finalName}" was saved.`);
      await done();
      return true;
    },
  });
  unfollow = onChange(followGroup(group, known, opened));
}

// Deletes the groups named in `names` after a confirmation. Groups that remain
// are named one by one in the page's alert region.
export function openDeleteDialog(names, done) {
  const count = names.length;
  const list = h('ul', { class: 'name-list' }, names.map((n) => h('li', {}, n)));
  openDialog({
    title: count === 1 ? `Delete the group "${names[0]}"?` : `Delete ${count} groups?`,
    submitLabel: count === 1 ? 'Delete group' : `Delete ${count} groups`,
    danger: true,
    content: [
      count === 1 ? null : list,
      h('p', {}, 'The members keep their user accounts; only the groups are removed. This cannot be undone.'),
    ],
    async onSubmit() {
      let data;
      try {
        data = await call('TAVO.Core.Group', 'delete', { name: names });
      } catch (err) {
        return refusal(err, 'delete');
      }
      const errors = Array.isArray(data.errors) ? data.errors : [];
      const remained = new Set(errors.map((e) => String(e.name)));
      const deleted = names.filter((n) => !remained.has(n));
      const lines = [];
      if (deleted.length === 1) lines.push(`The group "${deleted[0]}" was deleted.`);
      else if (deleted.length > 1) lines.push(`${deleted.length} groups were deleted.`);
      if (errors.length === 0) {
        showNotice(lines);
      } else {
        for (const e of errors) {
          const why = Number(e.code) === 3212
            ? 'Built-in groups, system groups and groups that are some user\'s primary group cannot be deleted.'
            : describeCode(Number(e.code), 'delete');
          lines.push(`The group "${e.name}" was not deleted. ${why}`);
        }
        showError(lines);
      }
      await done(deleted);
      return true;
    },
  });
}
