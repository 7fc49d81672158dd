// The lists of segments and of modules, written once for both memories.
//
// An Entry says what a list holds: the payload's type, its order, its text. A List says where: how
// to follow a link, make a node, link it, and drop one off a link. A new node is filled first and
// then linked by one store, so that a list is whole at every instant.
#pragma once

#include <stdio.h>
#include <string.h>

#include "trel/lists.h"
#include "trelshm/flow.h"

namespace trel {

// No module is one with an empty path.
constexpr HdmModuleRecord_t kNoModule = {};

// 0 for equal keys, 1 for different ones.
inline uint32_t compareKeys(uint32_t key1, uint32_t key2, uint32_t version, int32_t* order) {
  if (version != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  *order = key1 != key2;
  return 0;
}

constexpr char kSegmentLine[] = "Linked list node #%d stores segment key = \"%d\"\n";

struct SegmentEntry {
  using Record = SegIdentity_t;
  using SharedNode = SegListNode_t;
  using PrivateNode = PMSegListNode_t;

  template <class Node>
  static Record* payload(Node* node) {
    return &node->identity;
  }
  static uint32_t compare(const Record& sought, const Record& present, uint32_t version,
                          int32_t* order) {
    return compareKeys(sought.segmentKey.key, present.segmentKey.key, version, order)
               ? uint32_t{TREL_RC_COMPARE_KEY}
               : 0;
  }
  static void print(FILE* out, int number, const Record& record) {
    fprintf(out, kSegmentLine, number, static_cast<int>(record.segmentKey.key));
  }
};

struct ModuleEntry {
  using Record = HdmModuleRecord_t;
  using SharedNode = HdmListNode_t;
  using PrivateNode = PMHdmListNode_t;

  template <class Node>
  static Record* payload(Node* node) {
    return &node->module;
  }
  static uint32_t compare(const Record& sought, const Record& present, uint32_t, int32_t* order) {
    *order = strncmp(sought.modulePath, present.modulePath, sizeof sought.modulePath);
    return 0;
  }
  static void print(FILE* out, int number, const Record& record) {
    fprintf(out, "Linked list node #%d stores HDM module path = \"%.*s\"\n", number,
            static_cast<int>(sizeof record.modulePath), record.modulePath);
  }
};

// A link and the node that it leads to, null at the end of the list.
template <class List>
struct Cursor {
  typename List::Link* link;
  typename List::Node* node;
  int32_t order;  // of the record sought against this node
};

// Walks to the first node at which the order satisfies stop(), or to the end.
template <class List, class Stop>
uint32_t seek(const List& list, const typename List::Entry::Record& record, Stop&& stop,
              Cursor<List>* cursor) {
  cursor->link = list.head();
  for (uint64_t steps = 0;; ++steps) {
    if (const uint32_t rc = list.follow(cursor->link, steps, &cursor->node)) return rc;
    if (!cursor->node) return 0;
    if (const uint32_t rc = List::Entry::compare(record, *List::Entry::payload(cursor->node),
                                                 list.version(), &cursor->order))
      return rc;
    if (stop(cursor->order)) return 0;
    cursor->link = List::linkOf(cursor->node);
  }
}

inline bool isEqual(int32_t order) { return order == 0; }

template <class List>
uint32_t find(const List& list, const typename List::Entry::Record& record,
              typename List::Entry::Record** found) {
  Cursor<List> cursor;
  if (const uint32_t rc = seek(list, record, isEqual, &cursor)) return rc;
  const bool isEmpty = !cursor.node && cursor.link == list.head();
  if (isEmpty && List::kEmptyKeepsOut) return 0;
  *found = cursor.node ? List::Entry::payload(cursor.node) : nullptr;
  return 0;
}

template <class List>
uint32_t insert(const List& list, const typename List::Entry::Record& record,
                typename List::Entry::Record** inserted) {
  Cursor<List> cursor;
  const auto isPlace = [](int32_t order) { return order >= 0; };
  if (const uint32_t rc = seek(list, record, isPlace, &cursor)) return rc;
  if (cursor.node && cursor.order == 0) return TREL_RC_LIST_PRESENT;
  typename List::Node* made = nullptr;
  if (const uint32_t rc = list.make(&made)) return rc;
  *List::linkOf(made) = *cursor.link;
  *List::Entry::payload(made) = record;
  list.link(cursor.link, made);
  *inserted = List::Entry::payload(made);
  return 0;
}

template <class List>
uint32_t findOrInsert(const List& list, const typename List::Entry::Record& record,
                      typename List::Entry::Record** entered) {
  *entered = nullptr;
  const uint32_t rc = find(list, record, entered);
  return rc || *entered ? rc : insert(list, record, entered);
}

template <class List>
uint32_t remove(const List& list, const typename List::Entry::Record& record) {
  Cursor<List> cursor;
  if (const uint32_t rc = seek(list, record, isEqual, &cursor)) return rc;
  if (!cursor.node) return TREL_RC_LIST_ABSENT;
  return list.drop(cursor.link, cursor.node);
}

// Node by node, so that a death leaves what is not freed on the list. A failure ends it, and the
// list is empty all the same.
template <class List>
uint32_t clear(const List& list) {
  for (uint64_t steps = 0;; ++steps) {
    typename List::Node* node = nullptr;
    uint32_t rc = list.follow(list.head(), steps, &node);
    if (rc == 0 && !node) return 0;
    if (rc == 0) rc = list.drop(list.head(), node);
    if (rc == 0) continue;
    *list.head() = {};
    return rc;
  }
}

template <class List>
uint32_t print(const List& list, FILE* out) {
  typename List::Link* link = list.head();
  for (uint64_t steps = 0;; ++steps) {
    typename List::Node* node = nullptr;
    if (const uint32_t rc = list.follow(link, steps, &node)) return rc;
    if (!node) {
      if (steps == 0) fprintf(out, "List is empty\n");
      return 0;
    }
    List::Entry::print(out, static_cast<int>(steps) + 1, *List::Entry::payload(node));
    link = List::linkOf(node);
  }
}

}  // namespace trel
