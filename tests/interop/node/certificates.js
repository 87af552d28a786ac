// certificates.js - what a side of a test shows and trusts over TLS: options for Node's tls, or null.
// The environment names the folder.
'use strict';
const { readFileSync } = require('fs');

const folder = process.env.CERTIFICATES;
const file = (name) => readFileSync(`${folder}/${name}`);

module.exports = !folder ? null : {
  ca: file('ca.pem'), cert: file('peer.pem'), key: file('peer.key'),
  requestCert: true, rejectUnauthorized: true };
