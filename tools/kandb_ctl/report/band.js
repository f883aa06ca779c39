'use strict';
const band = $('band');
const fewestPieces = Math.min(8, pieces.length);
let view = {begin: 0, count: pieces.length};
let cursor = 0;  // a piece
let drag = null;  // the columns that a pointer marks

const clamp = (value, lowest, highest) => Math.max(lowest, Math.min(value, highest));
const kindOf = piece => ['gap', 'region'][pieces[piece].length] || 'overlap';
// A bin may have faults of its own.
const kindsOf = piece => [kindOf(piece), ...pieces[piece].flatMap(position =>
  [...(regions[position].gaps > 0 ? ['gap'] : []), ...(regions[position].overlaps > 0 ? ['overlap'] : [])])];

// --- Columns: a column stands for one piece, or for several when there are too many to be seen ---

const columnCount = () => clamp(Math.floor(band.clientWidth / 3), 1, view.count);
const columnBegin = column => view.begin + Math.floor(column * view.count / columnCount());
const columnOf = piece => Math.ceil((piece - view.begin + 1) * columnCount() / view.count) - 1;
const columnAt = event => clamp(
  Math.floor((event.clientX - band.getBoundingClientRect().left) * columnCount() / band.clientWidth),
  0, columnCount() - 1);

function piecesOf(column) {
  const begin = columnBegin(column);
  return Array.from({length: columnBegin(column + 1) - begin}, (_, i) => begin + i);
}

// The piece that a column is asked about: its worst one.
function pieceFor(column) {
  const inColumn = piecesOf(column);
  return inColumn.find(piece => kindsOf(piece).includes('overlap')) ??
    inColumn.find(piece => kindsOf(piece).includes('gap')) ?? inColumn[0];
}

function draw() {
  const scale = window.devicePixelRatio || 1;
  const style = getComputedStyle(document.documentElement);
  const pen = band.getContext('2d');
  band.width = Math.round(band.clientWidth * scale);
  band.height = Math.round(band.clientHeight * scale);
  const edge = column => Math.round(column * band.width / columnCount());
  const fill = (column, top, bottom, color, space = 0) => {
    pen.fillStyle = style.getPropertyValue(`--${color}`);
    pen.fillRect(edge(column), top * band.height, edge(column + 1) - edge(column) - space,
                 (bottom - top) * band.height);
  };
  const space = band.width / columnCount() >= 6 * scale ? Math.round(scale) : 0;
  for (let column = 0; column < columnCount(); ++column) {
    const inColumn = piecesOf(column);
    const kinds = new Set(inColumn.flatMap(kindsOf));
    const single = view.count === columnCount();
    const regionColor = single && inColumn[0] % 2 === 1 ? 'region-next' : 'region';
    if (kinds.has('region')) fill(column, .3, .7, regionColor, space);
    if (kinds.has('overlap')) fill(column, .05, kinds.has('region') ? .5 : .7, 'overlap', space);
    if (kinds.has('gap')) fill(column, kinds.size > 1 ? .5 : .3, .95, 'gap', space);
  }
  if (drag) {
    for (let column = drag.first; column <= drag.last; ++column) fill(column, 0, 1, 'shade');
  }
  pen.strokeStyle = style.getPropertyValue('--text');
  pen.lineWidth = 2 * scale;
  const left = edge(columnOf(cursor));
  pen.strokeRect(left, scale, Math.max(edge(columnOf(cursor) + 1) - left, 3 * scale),
                 band.height - 2 * scale);
  showEnds();
}

function showEnds() {
  $('view-begin').textContent = shortened(lowerText(view.begin));
  $('view-end').textContent = shortened(upperText(view.begin + view.count));
  const thumb = $('overview').firstElementChild.style;
  thumb.marginLeft = `${100 * view.begin / pieces.length}%`;
  thumb.width = `${100 * view.count / pieces.length}%`;
}

function showDetails() {
  const covering = pieces[cursor].map(position => regions[position]);
  const range = rangeText({begin: cursor, end: cursor + 1});
  const orMore = covering.length === data.max_regions_per_piece ? ' or more' : '';
  const title = covering.length === 0 ? `Gap: no region covers ${range}` :
    covering.length === 1 ? `${covering[0].id === '' ? 'A' : 'Region'} ${nameOf(covering[0])} ${rangeText(covering[0])}` :
    `Overlap: ${covering.length}${orMore} regions cover ${range}`;
  const details = $('details');
  details.replaceChildren();
  add(details, 'div', title, 'key');
  for (const region of covering) {
    if (region.id === '') {
      const faults = faultsOf(region);
      add(details, 'div', `A ${nameOf(region)}${faults ? `, with ${faults}` : ''}. This lists all regions: `);
      add(details, 'code', commandText());
      continue;
    }
    const name = covering.length > 1 ? `Region ${region.id} ${rangeText(region)}, epoch` : 'Epoch';
    add(details, 'div', `${name}: conf ${region.confVersion}, version ${region.version}`);
    const list = add(details, 'ul');
    region.peers.forEach((peer, i) => add(list, 'li',
      `peer ${peerText(peer)} ${addresses.get(peer.store) || ''}${i === 0 ? ', leader' : ''}`));
    if (region.peers.length === 0) add(list, 'li', 'no peers');
  }
  const together = piecesOf(columnOf(cursor)).length;
  if (together > 1) {
    add(details, 'div', `One of ${together} in this column: zoom in to tell them apart.`, 'muted');
  }
  band.setAttribute('aria-valuemin', 1);
  band.setAttribute('aria-valuemax', pieces.length);
  band.setAttribute('aria-valuenow', cursor + 1);
  band.setAttribute('aria-valuetext', title);
}

function setView(begin, count, piece = cursor) {
  view.count = clamp(Math.round(count), fewestPieces, pieces.length);
  view.begin = clamp(Math.round(begin), 0, pieces.length - view.count);
  cursor = clamp(piece, view.begin, view.begin + view.count - 1);
  draw();
  showDetails();
}

function moveCursor(piece) {
  const target = clamp(piece, 0, pieces.length - 1);
  const begin = clamp(view.begin, target - view.count + 1, target);
  setView(begin, view.count, target);
}

const zoom = (factor, piece = cursor) =>
  setView(piece - (piece - view.begin) * factor, view.count * factor, piece);
const showAround = piece => setView(piece - 20, 41, piece);

function showInBand(piece) {
  showAround(piece);
  $('key-space').scrollIntoView();
  band.focus({preventScroll: true});
}

// --- What people do ---

const pageOf = () => Math.ceil(view.count / 2);
// Not less than a column, or the mark would seem to stand still.
const step = () => Math.ceil(view.count / columnCount());
const keys = {
  ArrowLeft: () => moveCursor(cursor - step()), ArrowRight: () => moveCursor(cursor + step()),
  ArrowDown: () => moveCursor(cursor - step()), ArrowUp: () => moveCursor(cursor + step()),
  PageDown: () => moveCursor(cursor - pageOf()), PageUp: () => moveCursor(cursor + pageOf()),
  Home: () => moveCursor(0), End: () => moveCursor(pieces.length - 1),
  '+': () => zoom(1 / 4), '=': () => zoom(1 / 4), '-': () => zoom(4),
};
band.onkeydown = event => {
  if (event.ctrlKey || event.altKey || event.metaKey || !Object.hasOwn(keys, event.key)) return;
  event.preventDefault();
  keys[event.key]();
};

band.onpointerdown = event => {
  if (event.button !== 0) return;
  band.setPointerCapture(event.pointerId);
  const column = columnAt(event);
  drag = {from: column, first: column, last: column};
};
band.onpointermove = event => {
  const column = columnAt(event);
  if (drag) {
    drag.first = Math.min(drag.from, column);
    drag.last = Math.max(drag.from, column);
    draw();
  } else if (columnOf(cursor) !== column) {
    moveCursor(pieceFor(column));
  }
};
band.onpointerup = () => {
  if (!drag) return;
  const {first, last} = drag;
  drag = null;
  if (first === last) return zoom(1 / 4, pieceFor(first));
  const begin = columnBegin(first);
  setView(begin, columnBegin(last + 1) - begin, pieceFor(first));
};
band.onpointercancel = () => { drag = null; draw(); };

$('zoom-in').onclick = () => zoom(1 / 4);
$('zoom-out').onclick = () => zoom(4);
$('earlier').onclick = () => setView(view.begin - pageOf(), view.count);
$('later').onclick = () => setView(view.begin + pageOf(), view.count);
$('whole').onclick = () => setView(0, pieces.length);
const faults = pieces.map((_, piece) => piece).filter(piece => kindsOf(piece).some(kind => kind !== 'region'));
$('next-fault').disabled = faults.length === 0;
$('next-fault').onclick = () => showAround(faults.find(piece => piece > cursor) ?? faults[0]);

new ResizeObserver(draw).observe(band);
matchMedia('(prefers-color-scheme: dark)').onchange = draw;
setView(0, pieces.length);
