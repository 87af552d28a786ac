// webdriver.js - a headless Chromium for a script, over WebDriver with chromedriver.
'use strict';
const { spawn } = require('child_process');
const { X509Certificate, createHash } = require('crypto');
const { readFileSync, writeFileSync } = require('fs');
const http = require('http');

/// The hash of a certificate's public key, as the browser takes it.
function keyHash(file) {
  const key = new X509Certificate(readFileSync(file)).publicKey;
  return createHash('sha256').update(key.export({ type: 'spki', format: 'der' })).digest('base64');
}

function switches(folder, certificate) {
  const all = [
    '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync',
    '--disable-dev-shm-usage', '--no-proxy-server', '--window-size=900,700',
    `--user-data-dir=${folder}/profile`];
  if (certificate) all.push(`--ignore-certificate-errors-spki-list=${keyHash(certificate)}`);
  return all;
}

/// The port that a program tells of. Its output is read from then on.
function portOf(program) {
  return new Promise((resolve, reject) => {
    let told = '';
    program.stdout.on('data', (some) => {
      told = (told + some).slice(-10000);
      const found = told.match(/on port ([1-9]\d*)\D/);
      if (found) resolve(Number(found[1]));
    });
    program.on('error', reject);
    program.on('exit', () => reject(new Error(`${program.spawnargs[0]} ended: ${told}`)));
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

/// What a visit does with the browser.
class Browser {
  constructor(port, session) {
    this.send = (path, body) => command(port, body ? 'POST' : 'GET', `${session}/${path}`, body);
  }
  open(url) { return this.send('url', { url }); }
  /// The value of an expression in the page, once it is there if it is a promise.
  value(expression) {
    return this.send('execute/sync', { script: `return ${expression}`, args: [] });
  }
  /// Types into the element of a selector.
  async type(selector, text) {
    const found = await this.send('element', { using: 'css selector', value: selector });
    await this.send(`element/${Object.values(found)[0]}/value`, { text });
  }
  async picture(file) {
    writeFileSync(file, Buffer.from(await this.send('screenshot'), 'base64'));
  }
  /// What the reader prefers: light or dark.
  scheme(value) {
    const features = [{ name: 'prefers-color-scheme', value }];
    return this.send('goog/cdp/execute', { cmd: 'Emulation.setEmulatedMedia', params: { features } });
  }
}

/// Starts a browser for one visit, an asynchronous function of it. What fails is told and becomes
/// the exit code. The folder, empty, is for the browser's files. Of servers whose authority it
/// doesn't know it takes the one with the certificate.
async function browse(folder, certificate, visit) {
  const driver = spawn('chromedriver', ['--port=0'], {
    stdio: ['ignore', 'pipe', 'inherit'], env: { ...process.env, TMPDIR: folder } });
  try {
    const port = await portOf(driver);
    const args = switches(folder, certificate);
    const wanted = { alwaysMatch: { 'goog:chromeOptions': { args } } };
    const { sessionId } = await command(port, 'POST', '/session', { capabilities: wanted });
    const session = `/session/${sessionId}`;
    try {
      const limits = { script: 20000, pageLoad: 20000 };
      await command(port, 'POST', `${session}/timeouts`, limits);
      await visit(new Browser(port, session));
    } finally {
      await command(port, 'DELETE', session);
    }
  } catch (error) {
    console.error(String(error));
    process.exitCode = 1;
  } finally {
    driver.removeAllListeners('exit');
    driver.kill();
  }
}

module.exports = { browse, portOf };
