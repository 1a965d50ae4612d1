// bytes.h - reading and writing numbers at exact byte offsets.
//
// Collection and table images keep their fields at fixed, often unaligned,
// offsets in the machine's byte order; dumps keep them big-endian. These
// accessors are the only way the library touches such fields.
#ifndef COLL_FRAME_BYTES_H
#define COLL_FRAME_BYTES_H

#include <cstdint>
#include <cstring>

namespace coll {

inline uint16_t rd16(const uint8_t *p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline uint32_t rd32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void wr16(uint8_t *p, uint32_t v) {
  uint16_t w = static_cast<uint16_t>(v);
  std::memcpy(p, &w, 2);
}
inline void wr32(uint8_t *p, uint32_t v) { std::memcpy(p, &v, 4); }

// Big-endian (dump) byte order, whatever the machine's.
inline uint16_t rdBE16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t rdBE32(const uint8_t *p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}
inline void wrBE16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void wrBE32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

inline uint8_t *bytes(void *p) { return static_cast<uint8_t *>(p); }
inline const uint8_t *bytes(const void *p) { return static_cast<const uint8_t *>(p); }

}  // namespace coll

#endif  // COLL_FRAME_BYTES_H
