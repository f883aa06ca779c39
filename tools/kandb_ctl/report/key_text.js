'use strict';
// Keys as people write them: text, in which a backslash is doubled and \xNN is any byte, or "hex:" and
// pairs of digits. A parsed key has a character for each byte, so that keys compare as strings do.
//
// Written for old engines too: a test runs this file in a small one.

function bytesOfHex(digits) {
  return digits.replace(/../g, function (pair) { return String.fromCharCode(parseInt(pair, 16)); });
}

// null for a text in neither notation.
function parseKey(text) {
  var bytes = unescape(encodeURIComponent(text));  // in UTF-8
  if (bytes.indexOf('hex:') === 0) {
    var digits = bytes.slice('hex:'.length);
    return /^[0-9a-fA-F]*$/.test(digits) && digits.length % 2 === 0 ? bytesOfHex(digits) : null;
  }
  var malformed = false;
  var key = bytes.replace(/\\(\\|x[0-9a-fA-F]{2})?/g, function (_, escaped) {
    if (!escaped) malformed = true;
    return !escaped || escaped === '\\' ? '\\' : bytesOfHex(escaped.slice(1));
  });
  return malformed ? null : key;
}

// The position of the last of `bounds` that is not above a parsed key. They are key texts in the order
// of their keys; the first one is empty.
function lastBoundUpTo(bounds, key) {
  var low = 0;
  var high = bounds.length;
  while (high - low > 1) {
    var middle = (low + high) >> 1;
    if (parseKey(bounds[middle]) <= key) low = middle;
    else high = middle;
  }
  return low;
}
