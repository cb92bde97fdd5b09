// CSV text (RFC 4180, UTF-8) in and out, and saving a file from the page.
//
// parseCsv(text) -> array of rows (arrays of strings). Fields may be quoted
// with double quotes ("" inside stands for one quote); quoted fields may hold
// commas and line breaks. Lines end with CRLF or LF; a byte-order mark at the
// start is dropped, and so are empty lines.
//
// toCsv(rows) -> text with CRLF line ends. A cell that a spreadsheet would
// read as a formula (it starts with =, +, -, @, a tab or a carriage return)
// gets a leading apostrophe, so opening an export never runs anything;
// unguard() takes that apostrophe off again when such a file is imported, so
// every cell reads back as it was written.

export function parseCsv(text) {
  const src = String(text).replace(/^\uFEFF/, '');
  const rows = [];
  let row = [];
  let field = '';
  let quoted = false;
  let i = 0;
  const endField = () => {
    row.push(field);
    field = '';
  };
  const endRow = () => {
    endField();
    if (!(row.length === 1 && row[0] === '')) rows.push(row);
    row = [];
  };
  while (i < src.length) {
    const c = src[i];
    if (quoted) {
      if (c === '"') {
        if (src[i + 1] === '"') {
          field += '"';
          i += 2;
          continue;
        }
        quoted = false;
      } else {
        field += c;
      }
      i += 1;
      continue;
    }
    if (c === '"' && field === '') quoted = true;
    else if (c === ',') endField();
    else if (c === '\n') endRow();
    else if (c === '\r') {
      if (src[i + 1] !== '\n') endRow();
    } else field += c;
    i += 1;
  }
  if (field !== '' || row.length > 0) endRow();
  return rows;
}

// A formula sign first, or a guard already there (so that a cell that really
// starts with "'=" reads back as itself).
const FORMULA = /^'*[=+\-@\t\r]/;

function cell(value) {
  let text = value === null || value === undefined ? '' : String(value);
  if (FORMULA.test(text)) text = `'${text}`;
  return /[",\r\n]/.test(text) ? `"${text.replace(/"/g, '""')}"` : text;
}

export function toCsv(rows) {
  return rows.map((r) => r.map(cell).join(',')).join('\r\n') + '\r\n';
}

// "'=SUM(A1)" -> "=SUM(A1)": the guard that toCsv adds, removed.
export function unguard(text) {
  return /^'+[=+\-@\t\r]/.test(text) ? text.slice(1) : text;
}

// Offers `text` to the browser as a download named `filename`.
export function saveFile(filename, text, type = 'text/csv;charset=utf-8') {
  const url = URL.createObjectURL(new Blob([text], { type }));
  const link = document.createElement('a');
  link.href = url;
  link.download = filename;
  link.hidden = true;
  document.body.appendChild(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(url), 1000);
}
