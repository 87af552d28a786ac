// ws.js - the WebSocket of npm's ws as the counterpart of a test: "client URL" or "server".
//
// The server sends every message back; the texts "fragments", "ping" and "close" make it do that.
'use strict';
const certificates = require('./certificates.js');
const http = certificates ? require('https') : require('http');
const { WebSocket, WebSocketServer } = require('ws');

const shown = (data, isBinary) =>
  isBinary ? `binary ${data.length} ${data.toString('hex', 0, 4)}` :
    data.length > 99 ? `text ${data.length}` : `text ${data}`;

/// Resolves with what the next event of this kind brings.
const next = (socket, event) => new Promise((resolve, reject) => {
  socket.once(event, (...values) => resolve(values));
  socket.once('error', reject);
});

async function client(url, fragments, closing) {
  const socket = new WebSocket(url, { ...certificates, perMessageDeflate: true });
  await next(socket, 'open');
  const echo = async (data) => {
    const message = next(socket, 'message');
    socket.send(data);
    console.log(shown(...await message));
  };
  await echo('h\u00e9llo \u20ac');
  await echo('');
  await echo(Buffer.from([0, 255, 1, 254]));
  await echo('x'.repeat(70000));
  await echo(Buffer.alloc(100000, 7));

  const pong = next(socket, 'pong');
  socket.ping('are you there');
  console.log(`pong ${(await pong)[0]}`);

  if (fragments) {
    const message = next(socket, 'message');
    // Between the fragments a character is cut in two, and a ping comes.
    socket.send(Buffer.from('one h\xc3', 'latin1'), { binary: false, fin: false });
    socket.ping();
    socket.send(Buffer.from('\xa9 two', 'latin1'), { binary: false, fin: true });
    console.log(shown(...await message));
  }

  const closed = next(socket, 'close');
  if (closing === 'theirs') socket.send('close');
  else socket.close(4001, 'enough');
  const [code, reason] = await closed;
  console.log(`close ${code} ${reason}`);
}

function server() {
  const listener = http.createServer(certificates);
  listener.listen(0, '127.0.0.1', () => console.log(`port ${listener.address().port}`));
  new WebSocketServer({ server: listener }).on('connection', (socket) => {
    socket.on('message', (data, isBinary) => {
      console.log(shown(data, isBinary));
      if (isBinary) socket.send(data);
      else if (String(data) === 'fragments') {
        socket.send('one ', { fin: false });
        socket.ping();
        socket.send('two ', { fin: false });
        socket.send('three', { fin: true });
      } else if (String(data) === 'ping') socket.ping('are you there');
      else if (String(data) === 'close') socket.close(4002, 'enough');
      else socket.send(String(data));
    });
    socket.on('pong', (data) => { if (data.length) console.log(`pong ${data}`); });
    socket.on('close', (code, reason) => console.log(`close ${code} ${reason}`));
    socket.on('error', (error) => console.log(`error ${error.message}`));
  });
}

const [role, url, fragments, closing] = process.argv.slice(2);
if (role === 'client')
  client(url, fragments === 'fragments', closing)
    .catch((error) => { console.error(error); process.exit(1); });
else server();
