// profile.h - the sections of the profile file (the library's "COLL.INI"),
// read the way the library reads the file.
#ifndef COLLCTL_PROFILE_H
#define COLLCTL_PROFILE_H

#include <string>
#include <vector>

namespace collctl {

struct Section {
  std::string name;  // as spelled in its first header line
  size_t keys = 0;   // the items it loads as: its keys with a value, each once
};

// The file the library uses when no other is chosen:
// $XDG_CONFIG_HOME/COLL.INI, or $HOME/.config/COLL.INI; empty when neither
// variable is set.
std::string DefaultProfilePath();

// The sections of the text of a profile file in file order, each name once
// (names match without regard to the case of A-Z; the first section of a
// name is the one the library reads). A "[name]" line starts a section: the
// name ends at the line's last ']' and blanks around it are dropped. A
// "key=value" line that does not start with ';' or '[' is a key; a repeated
// key counts once, and a key whose (first) value is empty not at all.
std::vector<Section> ListSections(const std::string &text);

// The section of that name (blanks around it dropped, letter case of A-Z
// ignored), or null.
const Section *FindSection(const std::vector<Section> &sections, const std::string &name);

}  // namespace collctl

#endif  // COLLCTL_PROFILE_H
