// consistency.h - a check of the whole library state between calls.
#ifndef COLL_TESTS_CONSISTENCY_H
#define COLL_TESTS_CONSISTENCY_H

#include <cstdint>
#include <string>

namespace testutil {

// Walks every live collection, table and table data record and checks that
// they agree with each other:
//  - each collection image: the item walk ends at dataLength, itemCount
//    agrees, cache entries point at tags, pages hold the data; its tag
//    index, where it has one, describes it and finds every tag where the
//    walk finds it first;
//  - each table or collection item names a live object owned by that
//    collection, each owned object is named by exactly one item of its
//    owner, and every chain of owners ends at a top-level collection;
//  - each table header passes isBadTablePtr, and its cols + rows * cols + 5
//    strings lie within its data length;
//  - each table's position cache, where valid, and the row index of its
//    data record, where there is one, agree with a scan of the strings;
//  - each table data record's reference count equals the number of live
//    headers naming it, and a record in use has data.
// Empty when consistent, else a description of the first fault found.
// Takes the library lock; call it between library calls.
std::string CheckState();

// The checks of CheckState on the image of one collection.
std::string CheckCollectionImage(uint32_t h);

// Everything a call could change, read without allocating in the library:
// for every live collection its header (but the tag cache) and items, for
// every live table its header (but the position cache, stamp, pages and
// data record) and its data.
// Two equal snapshots mean that nothing changed in between. A collection
// handle in except leaves that collection out.
std::string Snapshot(uint32_t except = 0);
// Where two snapshots first differ ("" when equal): the object and offset.
std::string SnapshotDiff(const std::string &before, const std::string &after);

}  // namespace testutil

// Runs call; when it returns failure, nothing may have changed (for tests,
// which include gtest).
#define EXPECT_KEEPS_ON_FAILURE(call, failure)                                  \
  do {                                                                          \
    const std::string before_ = testutil::Snapshot();                           \
    if ((call) == (failure)) {                                                  \
      EXPECT_EQ(testutil::SnapshotDiff(before_, testutil::Snapshot()), "") << #call; \
    }                                                                           \
  } while (0)

// Runs call, which may change the collection h but nothing else.
#define EXPECT_CHANGES_ONLY(call, h)                                                \
  do {                                                                            \
    const std::string before_ = testutil::Snapshot(h);                            \
    (void)(call);                                                                 \
    EXPECT_EQ(testutil::SnapshotDiff(before_, testutil::Snapshot(h)), "") << #call; \
  } while (0)

#endif
