// The console page of tzr4417.cgi: reads parameters into a table, writes
// one, and shows which parameters changed with the write. A plain script
// with no build step. Everything the program sends reaches the page as text,
// never as HTML: values come from the daemon unchecked.
'use strict';

const PROGRAM = '/cgi-bin/tzr4417.cgi';
const FIRST_ROWS = [
  '/configuration/network/ip_addr',
  '/configuration/network/subnet_mask',
  '/configuration/network/broadcast_addr',
  '/configuration/network/gateway',
];
const STATUS_TEXT = {
  400: '400 Bad Request: the program found no parameter name to read.',
  401: '401: the web server wants a user name and password; reload the page to log in.',
  403: '403 Forbidden: the web server refused the request (sent from another site, ' +
    'or to a host name it does not serve).',
  413: '413: the request is larger than the web server accepts.',
};

const $ = (id) => document.getElementById(id);
let known = []; // The appliance's parameter names, from parameters.conf.
const rows = new Map(); // Parameter name -> its row in the table.

// An outcome the page explains; `raw` is the reply's text, shown as it came.
class Problem extends Error {
  constructor(message, raw = '') {
    super(message);
    this.raw = raw;
  }
}

// One request to the program; the text of a 200 reply, or a Problem.
async function call(fields) {
  let response;
  let text;
  try {
    response = await fetch(PROGRAM, {method: 'POST', body: new URLSearchParams(fields), cache: 'no-store'});
    text = await response.text();
  } catch (error) {
    throw new Problem(`No reply: the request failed before a whole answer arrived (${error.message}). ` +
      'The web server is down, or it closed the connection without a byte, as busybox httpd ' +
      'does when the program writes nothing.');
  }
  if (response.status === 200) return text;
  if (response.status === 500) {
    const detail = readableText(response, text);
    throw new Problem('500 Internal Server Error: ' + (detail ||
      'no text. The configuration daemon did not answer, or the program wrote nothing.'), text);
  }
  throw new Problem(STATUS_TEXT[response.status] ||
    `Unexpected status ${response.status} ${response.statusText}.`, text);
}

// The program's own 500 carries the daemon's text or "Exception ..."; lighttpd
// answers an empty program output with an HTML page of its own.
function readableText(response, text) {
  if (!(response.headers.get('content-type') || '').includes('html')) return text.trim();
  return new DOMParser().parseFromString(text, 'text/html').body.textContent.replace(/\s+/g, ' ').trim();
}

const hex = (c) => c.charCodeAt(0).toString(16).padStart(2, '0');

// The program writes raw control bytes of the daemon's values, and quotes in
// the names it lists as invalid, without escaping them: such a reply is not
// JSON. A raw control byte can only stand inside a string, so escaping those
// recovers the reply; anything else cannot be recovered.
function parseReply(text) {
  const line = text.replace(/\r?\n$/, '');
  if (line === '') {
    throw new Problem('The program answered with an empty body: every name in the list was empty.', text);
  }
  try {
    return {data: asObject(JSON.parse(line), text), note: ''};
  } catch (error) {
    if (error instanceof Problem) throw error;
    const control = /[\u0000-\u001f]/.exec(line);
    const why = `The reply is not valid JSON (${error.message})`;
    if (!control) throw new Problem(`${why}.`, text);
    const cause = `a raw control byte 0x${hex(control[0])} at offset ${control.index}, ` +
      'which the program does not escape';
    try {
      const escaped = line.replace(/[\u0000-\u001f]/g, (c) => '\\u00' + hex(c));
      return {data: asObject(JSON.parse(escaped), text),
        note: `The reply is not valid JSON: it holds ${cause}. The values were recovered by escaping such bytes.`};
    } catch (_) {
      throw new Problem(`${why}: it holds ${cause}.`, text);
    }
  }
}

function asObject(value, text) {
  if (value === null || typeof value !== 'object' || Array.isArray(value)) {
    throw new Problem('The reply is JSON but not an object.', text);
  }
  return value;
}

// Reads `names` in one request.
async function read(names) {
  const text = await call({read: names.join(',')});
  let reply;
  try {
    reply = parseReply(text);
  } catch (problem) {
    if (names.some((name) => /["\\]/.test(name))) {
      problem.message += ' A name asked for holds a double quote or a backslash: the program lists ' +
        'such a name under "invalid" without escaping it.';
    }
    throw problem;
  }
  const {data, note} = reply;
  const invalid = new Set(Array.isArray(data.invalid) ? data.invalid : []);
  const values = new Map();
  for (const name of names) {
    if (typeof data[name] === 'string') values.set(name, data[name]);
  }
  return {values, invalid, note, text};
}

function showMessage(text, kind) {
  $('message').textContent = text;
  $('message').className = kind;
}

// Text as it came, control bytes marked rather than dropped or obeyed.
function showText(element, text) {
  element.replaceChildren();
  for (const part of text.split(/([\u0000-\u001f])/)) {
    if (part.length === 1 && part < ' ') {
      const mark = document.createElement('mark');
      mark.textContent = '\\x' + hex(part);
      mark.title = 'raw control byte';
      element.append(mark);
    } else {
      element.append(part);
    }
  }
}

const showRaw = (text) => showText($('reply'), text.replace(/\r?\n$/, ''));

function addRow(name) {
  if (rows.has(name)) return rows.get(name);
  const row = $('params').tBodies[0].insertRow();
  row.insertCell().textContent = name;
  row.insertCell();
  const remove = document.createElement('button');
  remove.textContent = '×';
  remove.title = 'Remove from the table';
  remove.addEventListener('click', (event) => {
    event.stopPropagation();
    row.remove();
    rows.delete(name);
  });
  row.insertCell().append(remove);
  row.addEventListener('click', () => {
    $('write-name').value = name;
    $('write-value').value = row.dataset.value ?? '';
    $('write-value').focus();
  });
  rows.set(name, row);
  return row;
}

function clearMarks() {
  for (const row of rows.values()) {
    row.classList.remove('changed');
    row.removeAttribute('title');
  }
}

function fillRow(name, result) {
  const row = addRow(name);
  const value = result.values.get(name);
  if (value === undefined) {
    delete row.dataset.value;
  } else {
    row.dataset.value = value;
  }
  row.classList.toggle('invalid', value === undefined);
  showText(row.cells[1], value ?? (result.invalid.has(name) ?
    'invalid: unknown to the daemon, or not a name it can be sent' : 'no answer'));
}

async function readRows() {
  const names = [...rows.keys()];
  if (names.length === 0) throw new Problem('Add a parameter to read first.');
  const result = await read(names);
  clearMarks();
  for (const name of names) fillRow(name, result);
  $('changes-box').hidden = true;
  showRaw(result.text);
  const invalid = names.filter((name) => result.invalid.has(name)).length;
  showMessage(result.note || `Read ${names.length} parameters` + (invalid ? `, ${invalid} invalid.` : '.'),
    result.note ? 'warning' : 'ok');
}

// Reads every known parameter and those on screen before and after the
// write: the ones whose value differs changed with it.
async function write(name, value) {
  const watched = [...new Set([...known, ...rows.keys(), name])];
  const before = await read(watched).catch(() => null);
  const text = await call({write: name, value});
  showRaw(text);
  const {data, note} = parseReply(text);
  const after = await read(watched).catch((problem) => {
    problem.message = `Wrote ${name}, but reading the parameters again failed. ${problem.message}`;
    throw problem;
  });

  clearMarks();
  const changes = $('changes').tBodies[0];
  changes.replaceChildren();
  for (const other of watched) {
    const old = before?.values.get(other);
    const now = after.values.get(other);
    if (before && old === now) continue;
    if (!before && !rows.has(other)) continue;
    fillRow(other, after);
    if (!before) continue;
    rows.get(other).classList.add('changed');
    rows.get(other).title = `was ${old ?? '(no value)'}`;
    const line = changes.insertRow();
    for (const cell of [other, old ?? '(no value)', now ?? '(no value)']) showText(line.insertCell(), cell);
  }
  $('changes-box').hidden = !before;
  const answer = `Wrote ${data.write ?? name}; the daemon answered ` +
    (data.reply ? `"${data.reply}".` : 'nothing (no error).');
  const count = changes.rows.length;
  const summary = before ? ` ${count} parameter${count === 1 ? '' : 's'} changed.` :
    ' The parameters could not be read before the write, so what changed is not known.';
  showMessage([note, answer + summary].filter(Boolean).join(' '), note || !before ? 'warning' : 'ok');
}

// One action at a time; a Problem lands on the message line with its raw text.
async function run(task) {
  if (document.body.dataset.state === 'busy') return;
  document.body.dataset.state = 'busy';
  for (const button of document.querySelectorAll('button')) button.disabled = true;
  try {
    await task();
  } catch (error) {
    const below = error.raw ? ' The raw reply is below.' : '';
    showMessage(error instanceof Problem ? error.message + below : `Page error: ${error}`, 'error');
    showRaw(error.raw ?? '');
  } finally {
    for (const button of document.querySelectorAll('button')) button.disabled = false;
    document.body.dataset.state = 'idle';
  }
}

async function loadKnown() {
  try {
    const response = await fetch('parameters.conf', {cache: 'no-store'});
    if (!response.ok) throw new Error(response.status);
    known = (await response.text()).split('\n').filter((line) => line.startsWith('/'))
      .map((line) => line.split(' ')[0]);
  } catch (_) {
    known = [];
  }
  $('known').replaceChildren(...known.map((name) => new Option(name)));
}

$('add-form').addEventListener('submit', (event) => {
  event.preventDefault();
  const name = $('add-name').value.trim();
  if (!name) return;
  addRow(name);
  $('add-name').value = '';
  run(readRows);
});
$('add-all').addEventListener('click', () => {
  known.forEach(addRow);
  run(readRows);
});
$('read-button').addEventListener('click', () => run(readRows));
$('write-form').addEventListener('submit', (event) => {
  event.preventDefault();
  run(() => write($('write-name').value.trim(), $('write-value').value));
});

run(async () => {
  await loadKnown();
  FIRST_ROWS.forEach(addRow);
  await readRows();
  if (known.length === 0) {
    showMessage('No list of known parameters (parameters.conf beside this page): type names instead.', 'warning');
  }
});
