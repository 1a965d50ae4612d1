// advice.cpp - change communication to advice windows and propagation targets.
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

// Collections get advice and propagation entries only through the
// registration functions; until those exist there is nobody to tell.
void CommunicateChange(uint32_t, const char *, uint32_t) {}

}  // namespace coll
