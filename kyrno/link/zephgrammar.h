// zephgrammar.h - the two short texts that say where the link connects or listens.
//
//   "ZEPH\\INIT"                     item {"," item}
//     item                           word ":" address ":" [port]     word: connect serve poll http
//                                    "config" [":" path]
//   "ZEPH\\LISTEN", "ZEPH\\CONNECT"  plain | (plain | bracketed) ":" [port] ["[" protocol "]"]
//     address                        plain: text up to the next ":"; bracketed: "[" text "]"
//     protocol                       ipv4 ipv6 dual
//
// An address has up to 512 bytes and loses its blanks; a path has less than 1024.
//
// Deliberate: whoever makes one mistake in a text has every later text of the process refused. Text
// behind the end of what could be read is refused too, but is no such mistake.
#pragma once

#include "kyrno/link/zeph2.h"

/// Reads "ZEPH_INIT" into Direction, pAddress, Port, Protocol and ConfigFile of a fresh record.
/// Direction is DIRUndefined after a mistake, DIRConfig when no item gave one. Port is UINT32_MAX
/// after one above 65535.
void ParseZephInit(PCH10 text, tZeph2Config* config);

/// Reads the text from here to `end` into pAddress, Port and Protocol, of a record whose Direction
/// is set. After a mistake Direction is DIRUndefined.
void rs_parse(PCH10 text, PCH10 end, tZeph2Config* config);

/// The two without the memory of earlier mistakes: *error says whether there was one before, and
/// becomes true by one here.
void ParseZephInit(PCH10 text, tZeph2Config* config, bool* error);
void rs_parse(PCH10 text, PCH10 end, tZeph2Config* config, bool* error);
