'use strict';
// Which region covers a key.

function findKey(text) {
  const answer = $('found');
  answer.replaceChildren();
  const key = parseKey(text);
  $('key').setAttribute('aria-invalid', key === null);
  if (key === null) {
    add(answer, 'span', 'Not a key: a backslash is written \\\\, a byte \\xNN, and after hex: come pairs of digits.', 'bad');
    return;
  }
  const piece = lastBoundUpTo(data.bounds, key);
  const covering = pieces[piece].map(position => regions[position]);
  showAround(piece);
  if (covering.length === 0) {
    add(answer, 'strong', 'No region covers it. ', 'bad');
    addText(answer, `The gap: ${rangeText({begin: piece, end: piece + 1})}`);
  }
  for (const region of covering) {
    const line = add(answer, 'div');
    addText(line, `${region.id === '' ? 'A' : 'Region'} ${nameOf(region)} covers it: ${rangeText(region)}`);
    if (region.id !== '') continue;
    line.append(region.gaps > 0 ? `, unless it is in one of ${counted(region.gaps, 'gap')} there. ` : '. ', 'Which one: ');
    add(line, 'code', commandText('--key', text || 'hex:'));
  }
  if (covering.length === data.max_regions_per_piece) add(answer, 'div', 'There may be more.');
}

$('find').onsubmit = event => {
  event.preventDefault();
  findKey($('key').value);
};
