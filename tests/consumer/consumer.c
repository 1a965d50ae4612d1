#include <stdio.h>
#include <string.h>

#include "coll.h"

int main(void) {
  HCOLL h = collOpen("consumer");
  char buf[16];
  if (!h || !collSetItem(h, "k", "value", 0xFFFFFFFFu) || collGetItem(h, "K", buf, sizeof buf) != 5 ||
      strcmp(buf, "value") != 0) {
    fprintf(stderr, "consumer failed\n");
    return 1;
  }
  collClose(h);
  puts("ok");
  return 0;
}
