// render.h - a dump tree as indented text and as JSON, and JSON back into a
// tree.
#ifndef COLLCTL_RENDER_H
#define COLLCTL_RENDER_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "image.h"

namespace collctl {

using Json = nlohmann::ordered_json;

// The items as an indented tree, one line per item (plus grid lines for
// tables and hex lines for long raw items), each line ended by '\n'.
std::string RenderTree(const std::vector<Item> &items);

// The dump as JSON (the schema is in the README).
Json ToJson(const Dump &dump);

// The items of a JSON document of that schema. Throws std::runtime_error
// naming the place of the first fault ("items[2].value: ...").
std::vector<Item> FromJson(const Json &doc);

// A byte string as JSON: a string when the bytes are valid UTF-8, else an
// object {"hex": "..."}.
Json BytesToJson(const Bytes &bytes);

}  // namespace collctl

#endif  // COLLCTL_RENDER_H
