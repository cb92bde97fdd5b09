// Sentences for every failure the page can meet, written for the person at
// the screen rather than for a developer.
//
// describeError(err, context) turns an ApiError (api.js) into one sentence.
// `context` names what the person was doing ("create", "rename", "delete",
// "add", "remove", "groups", "members", "events", "login"); a few codes read
// better with it, every other code falls back to the general sentence.

const GENERAL = {
  3201: 'The appliance refused the request because a value was missing or not in the expected form.',
  3202: 'The group database is busy with another change. Please wait a moment and try again.',
  3203: 'The directory\'s group list is not available right now: it is being updated or has not been copied to the appliance yet. Please try again later.',
  3205: 'A user named in the request does not exist (any more).',
  3206: 'A group with this name already exists, or the group could not be created. Names are compared ignoring upper and lower case.',
  3207: 'This name is reserved for the system and cannot be used for a group. Please choose another name.',
  3208: 'The group does not exist (any more). It may have been renamed or deleted meanwhile.',
  3209: 'The appliance already has the largest number of groups it allows, or no free group ID is left. Delete a group you no longer need before creating another.',
  3210: 'This would leave the appliance without a valid administrator, so nobody was removed. Keep at least one valid account in "administrators".',
  3211: 'The name or description cannot be stored. A group name may have at most 32 bytes and may not contain spaces, control characters or any of : , / \\ @ " \' # ; — it may not start with -, + or ~, and may not consist of digits only. A description may not contain control characters.',
  3212: 'The group could not be deleted.',
  3213: 'This is a directory group (Windows domain or LDAP). Its members are managed by the directory and cannot be listed or changed here.',
  3214: 'The appliance is not bound to an LDAP directory, so there are no LDAP groups to show.',
  3215: 'The appliance has not joined a Windows domain, so there are no domain groups to show.',
  3216: 'The group "users" always holds every local user. Its members cannot be added or removed.',
  3299: 'The appliance could not complete the request because of an unexpected problem. Please try again; if it happens again, the system log on the appliance has the details.',
};

const BY_CONTEXT = {
  create: {
    3201: 'Please enter a name for the new group.',
    3206: 'The group could not be created: either a group with this name already exists (names are compared ignoring upper and lower case), or the name is not allowed. A group name may have at most 32 bytes and may not contain spaces or any of : , / \\ @ " \' # ; — it may not start with -, + or ~, and may not consist of digits only.',
  },
  rename: {
    3201: 'Please enter a name for the group.',
    3206: 'Another group already uses this name (names are compared ignoring upper and lower case). Please choose another name.',
    3207: 'The name "users" and the names of system groups are reserved. Please choose another name.',
  },
  delete: {
    3201: 'No group could be deleted because the request was not in the expected form.',
  },
  remove: {
    3205: 'A selected user does not exist any more; refresh the list and try again.',
  },
  add: {
    3205: 'A selected user does not exist any more; refresh the list and try again.',
  },
  groups: {
    3201: 'The group list could not be shown because the request was not in the expected form.',
  },
  members: {
    3201: 'The member list could not be shown because the request was not in the expected form.',
    3208: 'This group does not exist (any more). It may have been renamed or deleted meanwhile.',
  },
};

const HTTP = {
  400: 'The appliance did not understand the request (HTTP 400). Reloading the page may help.',
  403: 'This account is not a member of "administrators" and may not manage groups (HTTP 403).',
  404: 'The appliance does not offer this function (HTTP 404). Its group module may not be loaded.',
  413: 'The request was too large for the appliance (HTTP 413). Select fewer items and try again.',
  429: 'Too many failed logins. Please wait a minute before trying again (HTTP 429).',
};

const LOGIN_HTTP = {
  400: 'Please enter an account name and a password.',
  401: 'The account name or the password is wrong, or this account may not log in here.',
  429: 'Too many failed logins. Please wait a minute before trying again.',
};

export const SESSION_EXPIRED = 'Your session has expired. Please log in again.';

export function describeCode(code, context = '') {
  const special = BY_CONTEXT[context];
  if (special && special[code]) return special[code];
  if (GENERAL[code]) return GENERAL[code];
  return `The appliance answered with an error this page does not know (code ${code}).`;
}

export function describeError(err, context = '') {
  if (!err || typeof err !== 'object' || !('kind' in err)) {
    return 'Something went wrong in this page. Please reload it and try again.';
  }
  switch (err.kind) {
    case 'api':
      return describeCode(err.code, context);
    case 'expired':
      return SESSION_EXPIRED;
    case 'network':
      return 'The appliance could not be reached. Please check the network connection and try again.';
    case 'format':
      return 'The appliance sent an answer that this page could not read. Please try again.';
    case 'http': {
      if (err.status === 429 && err.retryAfter > 0) {
        const wait = err.retryAfter === 1 ? '1 second' : `${err.retryAfter} seconds`;
        return `Too many failed logins. Please wait ${wait} before trying again.`;
      }
      if (context === 'login' && LOGIN_HTTP[err.status]) return LOGIN_HTTP[err.status];
      if (HTTP[err.status]) return HTTP[err.status];
      if (err.status >= 500) {
        return `The appliance had an internal problem (HTTP ${err.status}). Please try again in a moment.`;
      }
      return `The appliance refused the request (HTTP ${err.status}).`;
    }
    default:
      return 'Something went wrong in this page. Please reload it and try again.';
  }
}
