'use strict';
const $ = id => document.getElementById(id);
const data = JSON.parse($('data').textContent);
const pieces = data.pieces;
const addresses = new Map(data.stores);
// One without an id is a bin of several.
const regions = data.regions.map(([id, begin, end, ...rest]) => {
  if (id === '') return {id, begin, end, count: rest[0], gaps: rest[1], overlaps: rest[2], peers: []};
  const [confVersion, version, peers] = rest;
  return {id, begin, end, count: 1, gaps: 0, overlaps: 0, confVersion, version,
          peers: peers.map(([peerId, store, role]) => ({id: peerId, store, role}))};
});
const counted = (count, noun) => `${count} ${noun}${count === 1 ? '' : 's'}`;
const nameOf = region => region.id === '' ? `bin of ${counted(region.count, 'region')}` : region.id;
const faultsOf = ({gaps, overlaps}) => [[gaps, 'gap'], [overlaps, 'overlap']]
  .filter(([count]) => count > 0).map(([count, noun]) => counted(count, noun)).join(', ');

function add(parent, tag, text = '', className = '') {
  const child = parent.appendChild(document.createElement(tag));
  child.textContent = text;
  child.className = className;
  return child;
}

// Key texts are ASCII, so no key looks like these two.
const lowerText = bound => bound === 0 ? '-\u221e' : data.bounds[bound];
const upperText = bound => bound === data.bounds.length ? '+\u221e' : data.bounds[bound];
const rangeText = ({begin, end}) => `[${lowerText(begin)}, ${upperText(end)})`;
const shortened = text => text.length > 80 ? `${text.slice(0, 79)}\u2026` : text;

function peerText({id, store, role}) {
  const unknown = addresses.has(store) ? '' : ', unknown';
  return `${id} on store ${store}${unknown}${role ? ` (${role})` : ''}`;
}

const rowsAtOnce = 100;
let matching = regions;
let rowsShown = 0;

function showMoreRows() {
  for (const region of matching.slice(rowsShown, rowsShown + rowsAtOnce)) {
    const row = add($('region-rows'), 'tr');
    const idCell = add(row, 'td');
    if (region.begin < region.end) {
      const link = add(idCell, 'button', nameOf(region), 'link');
      link.title = `Show ${nameOf(region)} in the key space`;
      link.onclick = () => showInBand(region.begin);
    } else {
      idCell.textContent = `${region.id} (covers nothing)`;
    }
    add(row, 'td', shortened(lowerText(region.begin)), 'key');
    add(row, 'td', shortened(upperText(region.end)), 'key');
    if (region.id === '') {
      add(row, 'td', faultsOf(region)).colSpan = 2;
      continue;
    }
    add(row, 'td', `conf ${region.confVersion}, version ${region.version}`);
    add(row, 'td', region.peers.map(peerText).join('; ') || 'none');
  }
  rowsShown = Math.min(rowsShown + rowsAtOnce, matching.length);
  $('more-rows').hidden = rowsShown === matching.length;
}

const finders = {
  id: (region, text) => region.id === text,
  key: (region, text) => lowerText(region.begin).includes(text) || upperText(region.end).includes(text),
  store: (region, text) => region.peers.some(({store}) =>
    store === text || (addresses.get(store) || '').includes(text)),
  any: (...question) => finders.id(...question) || finders.key(...question) || finders.store(...question),
};

function filterRows() {
  const text = $('filter').value;
  const finder = finders[$('field').value];
  matching = text === '' ? regions : regions.filter(region => finder(region, text));
  rowsShown = 0;
  $('region-rows').replaceChildren();
  $('region-box').scrollTop = 0;
  $('match-count').textContent = `${matching.length} of ${regions.length}`;
  showMoreRows();
}

$('filter').oninput = filterRows;
$('field').onchange = filterRows;
$('more-rows').onclick = showMoreRows;
new IntersectionObserver(([entry]) => { if (entry.isIntersecting) showMoreRows(); },
                         {root: $('region-box')}).observe($('more-rows'));
for (const link of document.querySelectorAll('[data-store]')) {
  link.onclick = () => {
    $('field').value = 'store';
    $('filter').value = link.dataset.store;
    filterRows();
    $('filter').focus();
    $('regions').scrollIntoView();
  };
}
filterRows();
