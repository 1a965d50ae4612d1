/* raw_items.c - opens a collection, stores raw items, reads them back,
 * enumerates and renames them, and prints what it did. */
#include <stdio.h>
#include <string.h>

#include "coll.h"

static void list(HCOLL h) {
  uint32_t count = collItemCount(h);
  printf("  %u item(s):", count);
  for (uint32_t i = 0; i < count; ++i) {
    char tag[64];
    collNameItem(h, i, tag, sizeof tag);
    printf(" %s", tag);
  }
  printf("\n");
}

int main(void) {
  HCOLL h = collOpen("Example");
  if (!h) {
    fprintf(stderr, "collOpen failed\n");
    return 1;
  }
  char name[65];
  collGetName(h, name, sizeof name);
  printf("opened collection \"%s\" as handle 0x%04X\n", name, h);

  const unsigned char bytes[] = {0x01, 0x02, 0x03};
  collSetItem(h, "Bytes", bytes, sizeof bytes);
  collSetItem(h, "Greeting", "hello, world", 0xFFFFFFFFu);
  collSetItem(h, "Answer", "42", 2);
  printf("stored three raw items\n");
  list(h);

  char buffer[32];
  uint32_t n = collGetItem(h, "GREETING", buffer, sizeof buffer);
  printf("read \"greeting\" without regard to case: %u bytes \"%s\"\n", n, buffer);
  n = collGetItem(h, "bytes", buffer, sizeof buffer);
  printf("read \"bytes\": %u bytes:", n);
  for (uint32_t i = 0; i < n; ++i) printf(" %02X", (unsigned char)buffer[i]);
  printf("\n");
  printf("compare \"Greeting\" with \"HELLO\": %d\n", collCompare(h, "Greeting", "HELLO", 0xFFFFFFFFu));

  collRenameTag(h, "Answer", "Reply");
  printf("renamed \"Answer\" to \"Reply\" (it moves to the end)\n");
  list(h);

  collSetItem(h, "Bytes", "", 0);
  printf("stored zero bytes under \"Bytes\", which deletes it\n");
  list(h);

  collClose(h);
  printf("closed; the handle is %s\n", collIsBadCollHandle(h) ? "gone" : "still valid");
  return 0;
}
