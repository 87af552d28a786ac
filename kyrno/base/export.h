// export.h - marks what the shared object shows to the outside; all else is hidden.
#pragma once

#define KYRNO_EXPORT __attribute__((visibility("default")))
