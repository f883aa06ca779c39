'use strict';
// The table of regions: search, order, and rows as they are scrolled to.
const rowsAtOnce = 100;
let ordered = regions;
let matching = regions;
let rowsShown = 0;

function addCell(row, label, text = '') {
  const cell = add(row, 'td', text);
  cell.dataset.label = label;
  return cell;
}

function addKeyCell(row, label, text) {
  const cell = addCell(row, label);
  cell.className = 'key';
  addText(cell, text);
}

function showMoreRows() {
  for (const region of matching.slice(rowsShown, rowsShown + rowsAtOnce)) {
    const row = add($('region-rows'), 'tr');
    if (region.begin < region.end) {
      const link = add(addCell(row, 'Region'), 'button', nameOf(region), 'link');
      link.title = `Show ${nameOf(region)} in the key space`;
      link.onclick = () => showInBand(region.begin);
    } else {
      addCell(row, 'Region', `${region.id} (covers nothing)`);
    }
    addKeyCell(row, 'Start', lowerText(region.begin));
    addKeyCell(row, 'End', upperText(region.end));
    if (region.id === '') {
      addCell(row, 'Faults', faultsOf(region)).colSpan = 2;
      continue;
    }
    addCell(row, 'Epoch', `conf ${region.confVersion}, version ${region.version}`);
    addCell(row, 'Peers, leader first', region.peers.map(peerText).join('; ') || 'none');
  }
  rowsShown = Math.min(rowsShown + rowsAtOnce, matching.length);
  $('more-rows').hidden = rowsShown === matching.length;
}

const finders = {
  id: (region, text) => region.id === text,
  key: (region, text) => lowerText(region.begin).includes(text) || upperText(region.end).includes(text),
  store: (region, text) => region.peers.some(({store}) =>
    store === text || (addresses.get(store) || '').includes(text)),
  replicas: (region, text) => region.id !== '' && replicasOf(region) === text,
  any: (region, text) => ['id', 'key', 'store'].some(field => finders[field](region, text)),
};

// What a search has not seen, because it is in bins.
function showUnlisted(field, text) {
  const note = $('unlisted');
  note.replaceChildren();
  if (!hasBins || text === '') return;
  const group = data.replicas.find(([voters, learners]) => field === 'replicas' && `${voters}+${learners}` === text);
  if (group && group[2] === matching.length) return;
  note.append(group ? `And ${group[2] - matching.length} more, in bins. All of them: `
                    : 'Regions in bins are not searched. ');
  if (group) add(note, 'code', commandText('--voters', String(group[0]), '--learners', String(group[1])));
  if (field === 'id' && isNumber(text)) add(note, 'code', commandText('--id', text));
}

function filterRows() {
  const text = $('filter').value;
  const field = $('field').value;
  matching = text === '' ? ordered : ordered.filter(region => finders[field](region, text));
  rowsShown = 0;
  $('region-rows').replaceChildren();
  $('region-box').scrollTop = 0;
  $('match-count').textContent = `${matching.length} of ${regions.length}`;
  showUnlisted(field, text);
  showMoreRows();
}

const orders = [
  (a, b) => compareTexts(a.id, b.id),
  (a, b) => a.begin - b.begin,
  (a, b) => a.end - b.end,
  (a, b) => compareTexts(a.confVersion || '', b.confVersion || '') || compareTexts(a.version || '', b.version || ''),
  (a, b) => a.peers.length - b.peers.length,
];
makeSortable($('region-table'), (column, direction) => {
  ordered = [...regions].sort((a, b) => direction * orders[column](a, b));
  filterRows();
});

$('filter').oninput = filterRows;
$('field').onchange = filterRows;
$('more-rows').onclick = showMoreRows;
new IntersectionObserver(([entry]) => { if (entry.isIntersecting) showMoreRows(); },
                         {root: $('region-box')}).observe($('more-rows'));
for (const link of document.querySelectorAll('[data-field]')) {
  link.onclick = () => {
    $('field').value = link.dataset.field;
    $('filter').value = link.dataset.text;
    filterRows();
    $('filter').focus();
    $('regions').scrollIntoView();
  };
}
filterRows();
