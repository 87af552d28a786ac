// drive.js PAGE PICTURE FOLDER [CERTIFICATE] - lets a headless Chromium open the page, prints the
// lines that its window.outcome resolves to, and takes a picture. The folder, empty, is for the
// browser's files. Of servers whose authority it doesn't know it takes the one with the certificate.
// Speaks WebDriver with chromedriver.
'use strict';
const { spawn } = require('child_process');
const { X509Certificate, createHash } = require('crypto');
const { readFileSync, writeFileSync } = require('fs');
const http = require('http');

const [page, picture, folder, certificate] = process.argv.slice(2);

/// The hash of a certificate's public key, as the browser takes it.
function keyHash(file) {
  const key = new X509Certificate(readFileSync(file)).publicKey;
  return createHash('sha256').update(key.export({ type: 'spki', format: 'der' })).digest('base64');
}

const switches = [
  '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--disable-dev-shm-usage', '--no-proxy-server', '--window-size=900,700',
  `--user-data-dir=${folder}/profile`];
if (certificate) switches.push(`--ignore-certificate-errors-spki-list=${keyHash(certificate)}`);

/// The port that chromedriver tells of.
function portOf(driver) {
  return new Promise((resolve, reject) => {
    let told = '';
    driver.stdout.on('data', (some) => {
      told += some;
      const found = told.match(/successfully on port (\d+)/);
      if (found) resolve(Number(found[1]));
    });
    driver.on('error', reject);
    driver.on('exit', () => reject(new Error(`chromedriver ended: ${told}`)));
  });
}

/// One WebDriver command, and the value of its answer.
function command(port, method, path, body) {
  return new Promise((resolve, reject) => {
    const request = http.request({ port, host: '127.0.0.1', method, path }, (response) => {
      let text = '';
      response.setEncoding('utf8').on('data', (some) => { text += some; }).on('end', () => {
        const { value } = JSON.parse(text);
        if (response.statusCode === 200) resolve(value);
        else reject(new Error(`${path}: ${value.error}: ${value.message}`));
      });
    });
    request.on('error', reject);
    request.end(body && JSON.stringify(body));
  });
}

async function drive(port) {
  const wanted = { alwaysMatch: { 'goog:chromeOptions': { args: switches } } };
  const { sessionId } = await command(port, 'POST', '/session', { capabilities: wanted });
  const session = `/session/${sessionId}`;
  try {
    await command(port, 'POST', `${session}/timeouts`, { script: 20000, pageLoad: 20000 });
    await command(port, 'POST', `${session}/url`, { url: page });
    const script = { script: 'return window.outcome', args: [] };
    for (const line of await command(port, 'POST', `${session}/execute/sync`, script))
      console.log(line);
    const png = await command(port, 'GET', `${session}/screenshot`);
    writeFileSync(picture, Buffer.from(png, 'base64'));
  } finally {
    await command(port, 'DELETE', session);
  }
}

const driver = spawn('chromedriver', ['--port=0'], {
  stdio: ['ignore', 'pipe', 'inherit'], env: { ...process.env, TMPDIR: folder } });
portOf(driver)
  .then(drive)
  .catch((error) => { console.error(String(error)); process.exitCode = 1; })
  .finally(() => { driver.removeAllListeners('exit'); driver.kill(); });
