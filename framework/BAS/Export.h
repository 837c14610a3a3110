// Symbol visibility for the framework library: everything the framework offers is exported,
// while the plug-in library is built with hidden visibility and exports its entry points only.
#pragma once

#define BAS_EXPORT __attribute__((visibility("default")))
