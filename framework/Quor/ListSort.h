// Stable sorting of an intrusive singly linked list, without allocation.
#pragma once
#include <Quor/Types.h>

namespace Quor::detail {

/// Merges two lists linked through next(n) (a reference to n's link), keeping the
/// order of equal members: a's before b's.
template <class N, class Before, class Next>
N* mergeLists(N* a, N* b, Before before, Next next) {
  N* head = nullptr;
  N** tail = &head;
  while (a && b) {
    if (before(b, a)) {
      *tail = b;
      b = next(b);
    } else {
      *tail = a;
      a = next(a);
    }
    tail = &next(*tail);
  }
  *tail = a ? a : b;
  return head;
}

/// True when no member comes before its predecessor.
template <class N, class Before, class Next>
bool listSorted(N* list, Before before, Next next) {
  for (N* n = list; n && next(n); n = next(n))
    if (before(next(n), n)) return false;
  return true;
}

/// Sorts the list stably by `before` and returns its new head: O(k) when it is already
/// in order, otherwise a bottom-up merge sort over runs of width 1, 2, 4, ... in
/// O(k log k) with no allocation. Only the next links are rewritten.
template <class N, class Before, class Next>
N* sortList(N* list, Before before, Next next) {
  if (listSorted(list, before, next)) return list;
  for (U64 width = 1;; width *= 2) {
    N* result = nullptr;
    N** resultTail = &result;
    U32 merges = 0;
    while (list) {
      N* a = list;
      N* p = a;
      for (U64 k = 1; k < width && next(p); ++k) p = next(p);
      N* b = next(p);
      next(p) = nullptr;
      N* q = b;
      if (q) {
        for (U64 k = 1; k < width && next(q); ++k) q = next(q);
        list = next(q);
        next(q) = nullptr;
      } else {
        list = nullptr;
      }
      *resultTail = mergeLists(a, b, before, next);
      while (*resultTail) resultTail = &next(*resultTail);
      ++merges;
    }
    list = result;
    if (merges <= 1) return list;
  }
}

}  // namespace Quor::detail
