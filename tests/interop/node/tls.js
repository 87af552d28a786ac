// tls.js - Node's tls as the counterpart of a test: "client PORT" or "server". Both send back.
'use strict';
const tls = require('tls');
const certificates = require('./certificates.js');

/// Sends back all that comes, and ends when the other side has.
function echo(socket) {
  const peer = socket.getPeerCertificate().subject.CN;
  console.log(`${socket.getProtocol()} ${peer}${socket.isSessionReused() ? ' again' : ''}`);
  socket.on('error', (error) => console.log(String(error)));
  socket.pipe(socket);
}

const [role, port] = process.argv.slice(2);
if (role === 'client') {
  const options = { ...certificates, host: '127.0.0.1', port: Number(port) };
  const socket = tls.connect(options, () => echo(socket));
} else {
  const served = tls.createServer(certificates, echo);
  served.listen(0, '127.0.0.1', () => console.log(`port ${served.address().port}`));
}
