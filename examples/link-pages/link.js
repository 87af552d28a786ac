// link.js - the remote environment's end of a session: a WebSocket to the host of this page.
//
//   connecting   the socket is being opened; when it is lost, again after a second
//   handshake    each end offers the versions it speaks, and answers the other's offer
//   connected    every message is one block of text, in either direction
'use strict';

const VERSION = 2;
const OFFER = 'SupportedProtocols=';
const CHOICE = `UsingProtocol=${VERSION}`;
const RETRY_MILLIS = 1000;

/// Events: "state", "block" with the text as its detail, and "lost" with a reason.
class Link extends EventTarget {
  constructor(url) {
    super();
    this.url = url;
    this.state = 'connecting';
    this.open();
  }

  /// Sends a block; false when there is no session to take it.
  send(text) {
    if (this.state !== 'connected') return false;
    this.socket.send(text);
    return true;
  }

  open() {
    const socket = new WebSocket(this.url);
    this.socket = socket;
    this.answered = this.chosen = false;
    socket.onopen = () => {
      this.enter('handshake');
      socket.send(OFFER + VERSION);
    };
    socket.onmessage = ({ data }) => this.receive(data);
    socket.onclose = ({ reason, code }) => {
      const was = this.state;
      this.enter('connecting');
      if (was !== 'connecting') this.tell('lost', reason || `the connection ended (${code})`);
      setTimeout(() => this.open(), RETRY_MILLIS);
    };
  }

  receive(data) {
    if (this.state === 'connected') return this.tell('block', data);
    if (data === CHOICE) {
      this.chosen = true;
    } else if (String(data).startsWith(OFFER) &&
               data.slice(OFFER.length).split(',').includes(String(VERSION))) {
      this.socket.send(CHOICE);
      this.answered = true;
    } else {
      return this.socket.close(4000, 'no common protocol');
    }
    // What it is sent before it has our answer would end the session.
    if (this.chosen && this.answered) this.enter('connected');
  }

  enter(state) {
    if (state === this.state) return;
    this.state = state;
    this.tell('state', state);
  }

  tell(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}

// Secure pages may open nothing but secure sockets.
const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
const link = new Link(`${scheme}//${location.host}/`);
