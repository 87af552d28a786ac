// page.js - what the page shows of the link.
'use strict';

const MOST_LINES = 200;
const MOST_SHOWN = 120;  // characters of a block
const STATES = {
  connecting: 'Connecting, with a new try every second',
  handshake: 'Agreeing on a protocol',
  connected: 'Connected',
};

const $ = (id) => document.getElementById(id);
const bytesOf = (text) => new TextEncoder().encode(text).length;

function sizeOf(bytes) {
  if (bytes < 1024) return `${bytes} B`;
  const [n, unit] = bytes < 1048576 ? [bytes / 1024, 'KiB'] : [bytes / 1048576, 'MiB'];
  return `${n.toFixed(1).replace('.0', '')} ${unit}`;
}

/// The beginning of a text, or all of a short one.
function brief(text) {
  if (text.length <= MOST_SHOWN) return text;
  return `${Array.from(text.slice(0, 2 * MOST_SHOWN)).slice(0, MOST_SHOWN).join('')}\u2026`;
}

/// A line of the transcript, of a kind: sent, received or note.
function write(kind, text, bytes) {
  const line = document.createElement('li');
  line.className = kind;
  const part = (name, content) => {
    const made = document.createElement(name);
    made.textContent = content;
    line.append(made);
  };
  part('time', new Date().toLocaleTimeString([], { hourCycle: 'h23' }));
  part('b', kind === 'note' ? '' : kind);
  part('span', brief(text));
  if (bytes !== undefined) part('small', sizeOf(bytes));

  const log = $('log');
  const follows = log.scrollHeight - log.scrollTop - log.clientHeight < 40;
  log.append(line);
  if (log.childElementCount > MOST_LINES) log.firstElementChild.remove();
  if (follows) log.scrollTop = log.scrollHeight;
}

const tally = { sent: [0, 0], received: [0, 0] };

function count(kind, text) {
  const bytes = bytesOf(text), sum = tally[kind];
  sum[0] += 1;
  sum[1] += bytes;
  $(kind).textContent = `${sum[0]} ${sum[0] === 1 ? 'block' : 'blocks'}, ${sizeOf(sum[1])}`;
  write(kind, text, bytes);
}

function send(text) {
  const sent = link.send(text);
  if (sent) count('sent', text);
  return sent;
}

/// Text of so many bytes in UTF-8, of characters of one to four.
function sample(bytes) {
  const some = 'a\u00e9\u20ac\u{1f642}';  // ten bytes
  return some.repeat(Math.floor(bytes / 10)) + '.'.repeat(bytes % 10);
}

function show(state) {
  document.body.dataset.state = state;
  $('state').textContent = STATES[state];
  for (const step of $('steps').children) {
    if (step.dataset.state === state) step.setAttribute('aria-current', 'step');
    else step.removeAttribute('aria-current');
  }
  const form = $('compose');
  for (const part of form.querySelectorAll('[type=submit], fieldset'))
    part.disabled = state !== 'connected';
}

link.addEventListener('state', ({ detail }) => {
  show(detail);
  if (detail === 'connected') write('note', 'A session has begun.');
});
link.addEventListener('lost', ({ detail }) => write('note', `The session is over: ${detail}.`));
link.addEventListener('block', ({ detail }) => count('received', detail));

$('compose').addEventListener('submit', (event) => {
  event.preventDefault();
  if ($('block').value && send($('block').value)) $('block').value = '';
});
$('block').addEventListener('keydown', (event) => {
  if (event.key !== 'Enter' || event.shiftKey || event.isComposing) return;
  event.preventDefault();
  $('compose').requestSubmit();
});
$('compose').querySelector('fieldset').addEventListener('click', ({ target }) => {
  if (target.value) send(sample(Number(target.value)));
});

$('address').textContent = link.url;
show(link.state);
