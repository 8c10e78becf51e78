// Operations on the doubly linked lists of buffer records. No other file assigns `next` or `prev`.
//
// Where a record joins a free list decides when it is reused: one that a write or a return has
// emptied joins at the head, one that keeps its pages at the tail.
//
// Debug and sanitizer builds assert what would corrupt memory if it did not hold.
#pragma once

#include <cassert>

#include "qzpos.h"

namespace qz {

template <class Node>
void pushHead(List<Node>& list, Node* node) {
  node->next = list.head;
  node->prev = nullptr;
  (list.head != nullptr ? list.head->prev : list.tail) = node;
  list.head = node;
}

template <class Node>
void pushTail(List<Node>& list, Node* node) {
  node->next = nullptr;
  node->prev = list.tail;
  (list.tail != nullptr ? list.tail->next : list.head) = node;
  list.tail = node;
}

template <class Node>
void unlink(List<Node>& list, Node* node) {
  assert((node->prev != nullptr ? node->prev->next : list.head) == node);
  assert((node->next != nullptr ? node->next->prev : list.tail) == node);
  (node->prev != nullptr ? node->prev->next : list.head) = node->next;
  (node->next != nullptr ? node->next->prev : list.tail) = node->prev;
}

template <class Node>
void moveToHead(List<Node>& list, Node* node) {
  unlink(list, node);
  pushHead(list, node);
}

template <class Node>
bool isEmpty(const List<Node>& list) {
  return list.head == nullptr;
}

}  // namespace qz
