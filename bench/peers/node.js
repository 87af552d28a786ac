// node.js - Node's own HTTP server, or an echo by the package ws: node.js http|websocket PORT
"use strict";

const http = require("node:http");

const [kind, port] = process.argv.slice(2);
const hello = "Hello, world!";

const server = http.createServer((request, response) => {
  response.writeHead(200, { "Content-Type": "text/plain", "Content-Length": hello.length });
  response.end(hello);
});

if (kind === "websocket") {
  const { WebSocketServer } = require("ws");
  new WebSocketServer({ server, perMessageDeflate: false }).on("connection", (socket) => {
    socket.on("message", (data, isBinary) => socket.send(data, { binary: isBinary }));
  });
}

server.listen(Number(port), "127.0.0.1");
