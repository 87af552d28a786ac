// ifzeph2.h - the second entry of the library: Zeph2Init, and what stands in its table.
#pragma once

struct TKYRNOFNS;
struct tZeph2Config;

/// The table of the link. `config` is read for its two callbacks alone; null is none. Null without
/// memory. A second call changes the callbacks and answers the same table.
extern "C" TKYRNOFNS* Zeph2Init(tZeph2Config* config);

/// The library goes: the thread that polls ends, and the blocks and the configuration are freed.
/// Before the roots are unloaded the first, behind that the second.
void ZephStop();
void ZephUnload();
