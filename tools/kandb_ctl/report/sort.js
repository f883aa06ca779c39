'use strict';
// Tables that a click on a column's header sorts, a second one the other way.

const isNumber = text => /^\d+$/.test(text);

// Whole numbers of any size by value, then texts by their characters.
function compareTexts(a, b) {
  if (isNumber(a) !== isNumber(b)) return isNumber(a) ? -1 : 1;
  if (isNumber(a) && a.length !== b.length) return a.length - b.length;
  return a < b ? -1 : Number(a > b);
}

// Calls `sort` with the number of a column and 1, or -1 for descending.
function makeSortable(table, sort) {
  const headers = [...table.tHead.rows[0].cells];
  headers.forEach((header, column) => {
    const name = header.textContent;
    header.replaceChildren();
    add(header, 'button', name, 'sort').onclick = () => {
      const direction = header.getAttribute('aria-sort') === 'ascending' ? -1 : 1;
      for (const other of headers) other.removeAttribute('aria-sort');
      header.setAttribute('aria-sort', direction > 0 ? 'ascending' : 'descending');
      sort(column, direction);
    };
  });
}

for (const table of document.querySelectorAll('table:not(#region-table)')) {
  const body = table.tBodies[0];
  makeSortable(table, (column, direction) => {
    const rows = [...body.rows].map(row => ({row, text: row.cells[column].textContent}));
    rows.sort((a, b) => direction * compareTexts(a.text, b.text));
    body.replaceChildren(...rows.map(({row}) => row));
  });
}
