// NUVSysList.cpp - the doubly linked list: insertion by kind, cursor moves
// that wrap on circular kinds, removals through DeleteElement.
#include "NUVSysList.h"

#include <new>

using Node = NUVSysListElementStruct;

namespace systemts::detail {

struct ListCore {
  static bool sorted(const NUVSysList& l) {
    return l._type == NUVSysListSorted || l._type == NUVSysListLinearSorted || l._type == NUVSysListCircularSorted;
  }
  static bool circular(const NUVSysList& l) {
    return l._type == NUVSysListCircular || l._type == NUVSysListCircularSorted;
  }

  // Links a new node holding CopyElement(element) between `prev` and `next`
  // (either null at an end). The node is allocated first, so that a failure
  // leaves no copy behind.
  static Node* link(NUVSysList& l, const void* element, Node* prev, Node* next) {
    Node* node = new (std::nothrow) Node{nullptr, next, prev};
    if (node == nullptr) return nullptr;
    node->element = l.CopyElement(element);
    (prev != nullptr ? prev->next : l._head) = node;
    (next != nullptr ? next->previous : l._tail) = node;
    ++l._count;
    return node;
  }

  // Unlinks `node`, releases its element and frees it.
  static void unlink(NUVSysList& l, Node* node) {
    (node->previous != nullptr ? node->previous->next : l._head) = node->next;
    (node->next != nullptr ? node->next->previous : l._tail) = node->previous;
    --l._count;
    if (l._cursor == node) l._cursor = nullptr;
    l.DeleteElement(node->element);
    delete node;
  }

  static void* at(const Node* node) { return node != nullptr ? node->element : nullptr; }
};

}  // namespace systemts::detail

using systemts::detail::ListCore;

NUVSysList::NUVSysList(NUVSysListType type, bool allowDuplicates)
    : _head(nullptr), _tail(nullptr), _count(0), _cursor(nullptr), _type(type), _allowDuplicates(allowDuplicates) {}

NUVSysList::NUVSysList(const NUVSysList& other)
    : _head(nullptr),
      _tail(nullptr),
      _count(0),
      _cursor(nullptr),
      _type(other._type),
      _allowDuplicates(other._allowDuplicates) {}

NUVSysList& NUVSysList::operator=(const NUVSysList& other) {
  copylist(other);
  return *this;
}

NUVSysList::~NUVSysList() {
  // DeleteElement is out of reach here (the subclass part is gone); a
  // subclass's destructor calls removeall first. Free what is left.
  for (Node* n = _head; n != nullptr;) {
    Node* next = n->next;
    delete n;
    n = next;
  }
  _head = _tail = _cursor = nullptr;
  _count = 0;
}

unsigned long NUVSysList::Count() const { return _count; }
void* NUVSysList::Head() const { return ListCore::at(_head); }
void* NUVSysList::Tail() const { return ListCore::at(_tail); }

void* NUVSysList::GetFirst() {
  _cursor = _head;
  return ListCore::at(_cursor);
}

void* NUVSysList::GetNext() {
  if (_cursor == nullptr) return nullptr;
  _cursor = _cursor->next != nullptr ? _cursor->next : ListCore::circular(*this) ? _head : nullptr;
  return ListCore::at(_cursor);
}

void* NUVSysList::GetLast() {
  if (ListCore::circular(*this)) return GetFirst();  // kept: callers rely on it
  _cursor = _tail;
  return ListCore::at(_cursor);
}

void* NUVSysList::GetPrevious() {
  if (_cursor == nullptr) return nullptr;
  _cursor = _cursor->previous != nullptr ? _cursor->previous : ListCore::circular(*this) ? _tail : nullptr;
  return ListCore::at(_cursor);
}

NUVSysListElementStruct* NUVSysList::Add(const void* element) {
  if (ListCore::sorted(*this)) {
    for (Node* n = _head; n != nullptr; n = n->next) {
      _cursor = n;
      const int c = CompareElements(n->element, element);
      if (c < 0) return addbefore(element, n);
      if (c == 0 && !_allowDuplicates) return nullptr;
    }
    return addtail(element);
  }
  if (!_allowDuplicates) {
    Node* const saved = _cursor;
    for (Node* n = _head; n != nullptr; n = n->next) {
      _cursor = n;
      if (CompareElements(n->element, element) == 0) return nullptr;
    }
    _cursor = saved;
  }
  return addtail(element);
}

NUVSysListElementStruct* NUVSysList::addtail(const void* element) {
  return ListCore::link(*this, element, _tail, nullptr);
}

NUVSysListElementStruct* NUVSysList::addhead(const void* element) {
  if (element == nullptr) return nullptr;
  return ListCore::link(*this, element, nullptr, _head);
}

NUVSysListElementStruct* NUVSysList::addafter(const void* element, NUVSysListElementStruct* node) {
  if (element == nullptr || node == nullptr) return nullptr;
  return ListCore::link(*this, element, node, node->next);
}

NUVSysListElementStruct* NUVSysList::addbefore(const void* element, NUVSysListElementStruct* node) {
  if (element == nullptr || node == nullptr) return nullptr;
  return ListCore::link(*this, element, node->previous, node);
}

NUVSysListElementStruct* NUVSysList::removehead() {
  if (_head == nullptr) return nullptr;
  ListCore::unlink(*this, _head);
  return _head;
}

NUVSysListElementStruct* NUVSysList::removetail() {
  if (_tail == nullptr) return nullptr;
  ListCore::unlink(*this, _tail);
  return _tail;
}

NUVSysListElementStruct* NUVSysList::removeat(NUVSysListElementStruct* node) {
  if (node == nullptr) return nullptr;
  if (node == _head) return removehead();
  if (node == _tail) return removetail();
  Node* next = node->next;
  ListCore::unlink(*this, node);
  return next;
}

int NUVSysList::Remove(const void* element) {
  for (Node* n = _head; n != nullptr; n = n->next) {
    if (CompareElements(n->element, element) == 0) {
      removeat(n);
      return 0;
    }
  }
  return -1;
}

int NUVSysList::Remove(unsigned long position) {
  if (position >= _count) return -1;
  Node* n = _head;
  for (unsigned long i = 0; i < position; ++i) n = n->next;
  removeat(n);
  return 0;
}

void NUVSysList::removeall() {
  while (_tail != nullptr) removetail();
  _head = _tail = _cursor = nullptr;
  _count = 0;
}

void NUVSysList::copylist(const NUVSysList& other) {
  if (&other == this) return;
  removeall();
  for (const Node* n = other._head; n != nullptr; n = n->next) addtail(n->element);
}
