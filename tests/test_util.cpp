#include "tests/test_util.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "coll_host.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tests/consistency.h"

namespace testutil {

std::string Item(HCOLL h, const char *tag) {
  uint32_t n = collGetItem(h, tag, nullptr, 0);
  if (n == 0) return "<missing>";
  std::string s(n + 1, '\0');
  collGetItem(h, tag, s.data(), n + 1);
  s.resize(n);
  return s;
}

std::string Tags(HCOLL h) {
  std::string out;
  uint32_t count = collItemCount(h);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t n = collNameItem(h, i, nullptr, 0);
    std::string tag(n, '\0');
    collNameItem(h, i, tag.data(), n);
    tag.resize(n ? n - 1 : 0);
    if (i) out += ',';
    out += tag;
  }
  return out;
}

std::string ItemArea(HCOLL h) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  if (!img) return {};
  return std::string(reinterpret_cast<char *>(coll::CollItems(img)), coll::CollDataLength(img));
}

uint32_t HandleOf(HCOLL h, const char *tag) {
  coll::LockGuard lock;
  uint8_t *img, *block;
  uint32_t n;
  return coll::RetrieveItem(h, &img, tag, &block, &n) && n == 4 ? coll::rd32(coll::BlockData(block)) : 0;
}

uint32_t LiveTables() {
  uint32_t handles[256];
  return collGetTableHandles(handles, sizeof handles);
}

uint32_t Pages(HCOLL h) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  return img ? coll::CollPages(img) : 0;
}

std::string CheckImage(HCOLL h) { return CheckCollectionImage(h); }

#ifdef _WIN32
// On Windows the clipboard belongs to the whole session and keeps what an
// earlier test process left on it; every test starts with it empty, as a
// process of its own does elsewhere.
namespace {
const bool g_emptyClipboard = collHostSetClipboardText(nullptr) != 0;
}  // namespace
#endif

TempIni::TempIni() {
  // The system's temporary directory: $TMPDIR (or /tmp) on POSIX, the
  // user's temporary folder on Windows.
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path base = fs::temp_directory_path(ec);
  for (uint32_t i = 0; !ec && dir_.empty() && i < 1000; ++i) {
    fs::path dir = base / ("coll_ini_" + std::to_string(platform::CurrentProcessId()) + "_" + std::to_string(i));
    if (fs::create_directory(dir, ec)) dir_ = dir.string();
    ec.clear();
  }
  path_ = dir_.empty() ? std::string() : (fs::path(dir_) / "COLL.INI").string();
  collHostSetProfilePath(path_.c_str());
}

TempIni::~TempIni() {
  collHostSetProfilePath(nullptr);
  std::remove(path_.c_str());
  std::remove((path_ + ".lock").c_str());
  std::error_code ec;
  if (!dir_.empty()) std::filesystem::remove(dir_, ec);
}

}  // namespace testutil
