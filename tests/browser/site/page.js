// page.js - what the page tries. window.outcome resolves to its lines, which it also shows.
'use strict';

function open(url) {
  return new Promise((resolve, reject) => {
    const socket = new WebSocket(url);
    socket.binaryType = 'arraybuffer';
    socket.onopen = () => resolve(socket);
    socket.onerror = () => reject(new Error(`no WebSocket to ${url}`));
  });
}

/// A message in few words, or all of it.
function told(data, whole) {
  if (typeof data === 'string') return `text ${whole || data.length < 99 ? data : data.length}`;
  const bytes = Array.from(new Uint8Array(data));
  return `binary ${whole || bytes.length < 99 ? bytes : bytes.length}`;
}

/// Sends a message, which has to come back.
function echo(socket, data) {
  return new Promise((resolve, reject) => {
    socket.onmessage = (event) => {
      if (told(data, true) === told(event.data, true)) resolve(told(data, false));
      else reject(new Error('another message came back'));
    };
    socket.onclose = (event) => reject(new Error(`closed ${event.code} ${event.reason}`));
    socket.send(data);
  });
}

function closed(socket, begin) {
  return new Promise((resolve) => {
    socket.onclose = ({ code, reason, wasClean }) =>
      resolve(`closed ${code} ${reason}, ${wasClean ? 'clean' : 'not clean'}`);
    begin();
  });
}

async function visit(tell) {
  const styled = getComputedStyle(document.body).color === 'rgb(20, 40, 60)';
  tell(`page: ${styled ? 'styled' : 'not styled'}, scripted`);

  // Large enough that the browser sends it in several frames; its characters are of 1 to 3 bytes.
  const text = 'a\u00e9\u20acz'.repeat(250000);
  const bytes = Uint8Array.from({ length: 1000000 }, (_, i) => i % 251).buffer;
  document.getElementById('scheme').textContent = location.protocol.slice(0, -1).toUpperCase();
  const scheme = location.protocol.replace('http', 'ws');
  const strict = `${scheme}//127.0.0.1:${new URLSearchParams(location.search).get('strict')}/`;
  for (const [name, url] of [['host', `${scheme}//${location.host}/`], ['strict', strict]]) {
    const socket = await open(url);
    const met = [];
    for (const data of ['h\u00e9llo \u20ac', new Uint8Array([0, 255, 1, 254]).buffer, text, bytes])
      met.push(await echo(socket, data));
    tell(`${name}: ${met.join(', ')}`);
    tell(`${name}: ${await closed(socket, () => socket.close(4001, 'enough'))}`);
  }
  const socket = await open(strict);
  tell(`strict: text, ${await closed(socket, () => socket.send('close'))}`);
}

window.outcome = (async () => {
  const lines = [];
  const tell = (line) => {
    lines.push(line);
    document.getElementById('log').append(Object.assign(document.createElement('li'), { textContent: line }));
  };
  await visit(tell).catch((error) => tell(String(error)));
  return lines;
})();
