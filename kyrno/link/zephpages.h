// zephpages.h - the pages of the remote development environment, served to a browser from a folder.
#pragma once

#include "kyrno/tree/rpcobjs.h"

/// What is served. Both texts are borrowed.
struct PAGES {
  PCH10 folder;      // "" for none: every answer is a 404
  PCH10 configFile;  // its section "ContentTypes" adds to the types, by extension
};

/// The answer to one request: a file of the folder, or 404 for what is no GET of a file there. No
/// name leads out of the folder: not by "..", not by a link, not by an absolute path.
///
/// request: the header block, from its first line to the blank one; rewound here.
/// Result:  ready for SendBuffer, made by the connection's ComposeBuffer; null without memory. The
///          caller's. The file is read when it is sent.
/// Threads: the work thread.
[[nodiscard]] PBUFFER HandleHttpRequest(const PAGES& pages, PHIERAKI connection, PBUFFER request);
