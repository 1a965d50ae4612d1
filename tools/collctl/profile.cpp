// profile.cpp - the sections of the profile file.
#include "profile.h"

#include <cstdlib>

namespace collctl {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string Trim(const std::string &s) {
  size_t a = 0, b = s.size();
  while (a < b && IsBlank(s[a])) ++a;
  while (b > a && IsBlank(s[b - 1])) --b;
  return s.substr(a, b - a);
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }

bool SameName(const std::string &a, const std::string &b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower(a[i]) != Lower(b[i])) return false;
  return true;
}

}  // namespace

std::string DefaultProfilePath() {
  const char *xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && xdg[0]) return std::string(xdg) + "/COLL.INI";
  const char *home = std::getenv("HOME");
  if (home && home[0]) return std::string(home) + "/.config/COLL.INI";
  return std::string();
}

std::vector<Section> ListSections(const std::string &text) {
  std::vector<Section> sections;
  Section *current = nullptr;      // the section whose keys are being counted
  std::vector<std::string> seen;  // its keys so far
  for (size_t pos = 0; pos < text.size();) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    const std::string line = Trim(text.substr(pos, nl - pos));
    pos = nl + 1;
    if (line.empty()) continue;
    if (line[0] == '[') {
      size_t close = line.rfind(']');
      std::string name = Trim(close == std::string::npos || close == 0 ? line.substr(1) : line.substr(1, close - 1));
      current = nullptr;
      seen.clear();
      bool known = false;
      for (const Section &s : sections) known = known || SameName(s.name, name);
      if (!known) {
        sections.push_back(Section{name, 0});
        current = &sections.back();
      }
      continue;
    }
    if (line[0] == ';' || !current) continue;
    // A repeated key is read once (its first line); an empty value gives no item.
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = Trim(line.substr(0, eq));
    if (key.empty()) continue;
    bool repeated = false;
    for (const std::string &k : seen) repeated = repeated || SameName(k, key);
    if (repeated) continue;
    seen.push_back(key);
    if (!Trim(line.substr(eq + 1)).empty()) ++current->keys;
  }
  return sections;
}

const Section *FindSection(const std::vector<Section> &sections, const std::string &name) {
  const std::string trimmed = Trim(name);
  for (const Section &s : sections)
    if (SameName(s.name, trimmed)) return &s;
  return nullptr;
}

}  // namespace collctl
