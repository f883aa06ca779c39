'use strict';
// The page's data, and how it is named and shown.
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
const hasBins = regions.some(({id}) => id === '');

const counted = (count, noun) => `${count} ${noun}${count === 1 ? '' : 's'}`;
const nameOf = region => region.id === '' ? `bin of ${counted(region.count, 'region')}` : region.id;
const faultsOf = ({gaps, overlaps}) => [[gaps, 'gap'], [overlaps, 'overlap']]
  .filter(([count]) => count > 0).map(([count, noun]) => counted(count, noun)).join(', ');
// Key texts are ASCII, so no key looks like these two.
const lowerText = bound => bound === 0 ? '-\u221e' : data.bounds[bound];
const upperText = bound => bound === data.bounds.length ? '+\u221e' : data.bounds[bound];
const rangeText = ({begin, end}) => `[${lowerText(begin)}, ${upperText(end)})`;
const shortened = text => text.length > 80 ? `${text.slice(0, 79)}\u2026` : text;

function peerText({id, store, role}) {
  const unknown = addresses.has(store) ? '' : ', unknown';
  return `${id} on store ${store}${unknown}${role ? ` (${role})` : ''}`;
}

function replicasOf({peers}) {
  const learners = peers.filter(({role}) => role === 'learner').length;
  return `${peers.length - learners}+${learners}`;
}

// For a shell. It lists regions that the page does not.
const quoted = word => /^[\w.,\/:=@+-]+$/.test(word) ? word : `'${word.replaceAll("'", "'\\''")}'`;
const commandText = (...options) =>
  ['kandb-ctl', 'state', 'regions', ...data.arguments, ...options].map(quoted).join(' ');

function add(parent, tag, text = '', className = '') {
  const child = parent.appendChild(document.createElement(tag));
  child.textContent = text;
  child.className = className;
  return child;
}

// A long text is shortened until it is asked for.
function addText(parent, text) {
  if (shortened(text) === text) return parent.append(text);
  const details = add(parent, 'details');
  add(details, 'summary', shortened(text));
  details.append(text);
}
