// http.js - Node's http as the counterpart of a test: "client URL" or "server".
'use strict';
const certificates = require('./certificates.js');
const http = certificates ? require('https') : require('http');

/// Sends one request and tells of the answer in one line.
function ask(base, options, send) {
  return new Promise((resolve, reject) => {
    const request = http.request(base + options.path, options, (response) => {
      const port = response.socket.localPort;
      const parts = [];
      response.on('data', (part) => parts.push(part));
      response.on('error', reject);
      response.on('end', () => {
        const body = Buffer.concat(parts);
        const shown = body.length > 99 ? `${body.length} bytes` : body.toString();
        const check = response.trailers.check ? ` check ${response.trailers.check}` : '';
        console.log(`${options.method} ${response.statusCode} ${shown}${check}`);
        resolve({ port, body });
      });
    });
    request.on('error', reject);
    send(request);
  });
}

async function client(base) {
  const agent = new http.Agent({ ...certificates, keepAlive: true, maxSockets: 1 });
  const large = Buffer.alloc(1 << 20, 'node ');
  const ports = new Set();
  const done = async (options, send) => {
    const { port, body } = await ask(base, { agent, ...options }, send);
    ports.add(port);
    return body;
  };
  await done({ method: 'GET', path: '/one' }, (r) => r.end());
  await done({ method: 'HEAD', path: '/two' }, (r) => r.end());
  await done({ method: 'POST', path: '/three' }, (r) => r.end('posted'));
  const back = await done(
    { method: 'PUT', path: '/four', headers: { Trailer: 'Check' } }, (r) => {
      r.write('first ');
      r.write(large);
      r.addTrailers({ Check: 'passed' });
      r.end('last');
    });
  console.log(`equal ${back.equals(Buffer.concat([Buffer.from('first '), large, Buffer.from('last')]))}`);
  console.log(`connections ${ports.size}`);
  agent.destroy();
}

function server() {
  const served = http.createServer(certificates, (request, response) => {
    const parts = [];
    request.on('data', (part) => parts.push(part));
    request.on('end', () => {
      const body = Buffer.concat(parts).toString();
      if (request.method === 'GET') {
        response.writeHead(200, { Trailer: 'Check' });
        response.write('first ');
        response.write('second ');
        response.addTrailers({ Check: 'passed', Other: 'too' });
        response.end('third');
      } else {
        response.end(`${request.method} ${body} ${request.trailers.check}`);
      }
    });
  });
  served.listen(0, '127.0.0.1', () => console.log(`port ${served.address().port}`));
}

const [role, base] = process.argv.slice(2);
if (role === 'client') client(base).catch((error) => { console.error(error); process.exit(1); });
else server();
