// treeview.h - the object tree that the library reports, drawn as a tree.
#pragma once

#include <string>
#include <vector>

#include "host/notation.h"

namespace host {

/// One line per node of a tree as Session::Tree returns it. Throws ZError on another shape.
std::vector<std::string> DrawTree(const ZValue& item);
/// The same as nested objects.
Json TreeJson(const ZValue& item);

}  // namespace host
