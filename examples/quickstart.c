/* Stores a text, a nested collection and a table, dumps them to a file and
 * loads the dump back into a new collection. */
#include <stdio.h>
#include <stdlib.h>

#include "coll.h"

int main(void) {
  HCOLL order = collOpen("Order"), address = collOpen(NULL), back = collOpen(NULL);
  HTABLE lines = tableCreate(2, 0);
  collSetString(order, "Customer", "Harbour Supplies Ltd.");
  collSetString(address, "City", "Portsmouth");
  collSetColl(order, "ShipTo", address); /* stores a copy */
  /* A packed row: its fields back to back, each ending with a zero. */
  tableSetRow(lines, (uint32_t)ROW_NAMES, "Item\0Qty", 9);
  tableSetRow(lines, (uint32_t)ROW_APPEND, "Rope\0" "4", 7);
  collSetTable(order, "Lines", lines); /* stores a copy */

  uint32_t n = collDumpItems(order, NULL, 0); /* the size needed */
  unsigned char *image = malloc(n ? n : 1);
  FILE *f = fopen("order.dump", "wb");
  int ok = image && f && collDumpItems(order, image, n) == n && fwrite(image, 1, n, f) == n;
  if (f) ok = fclose(f) == 0 && ok;
  f = fopen("order.dump", "rb");
  ok = ok && f && fread(image, 1, n, f) == n && collLoadItems(back, image, n);
  if (f) fclose(f);

  HCOLL shipTo = collGetColl(back, "ShipTo"); /* a new copy: close it */
  char city[64], item[64];
  collGetString(shipTo, "City", city, sizeof city);
  collTableGetField(back, "Lines", 0, 0, item, sizeof item);
  printf("%s: %s, %u row(s), first item %s\n", ok ? "loaded" : "failed", city,
         collTableRowCount(back, "Lines"), item);

  collClose(shipTo);
  tableDestroy(lines);
  collClose(back);
  collClose(address);
  collClose(order);
  free(image);
  return ok ? 0 : 1;
}
