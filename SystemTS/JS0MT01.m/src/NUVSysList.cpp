// NUVSysList.cpp - the doubly linked list: insertion by kind, cursor moves
// that wrap on circular kinds, removals through DeleteElement.
#include "NUVSysList.h"

#include <new>

using Node = NUVSysListElementStruct;

namespace systemts::detail {

struct ListCore {
  static bool sorted(const NUVSysList& l) {
    return l._Type == NUVSysListSorted || l._Type == NUVSysListLinearSorted || l._Type == NUVSysListCircularSorted;
  }
  static bool circular(const NUVSysList& l) {
    return l._Type == NUVSysListCircular || l._Type == NUVSysListCircularSorted;
  }

  // Links a new node holding CopyElement(element) between `prev` and `next`
  // (either null at an end). The node is allocated first, so that a failure
  // leaves no copy behind.
  static Node* link(NUVSysList& l, const void* element, Node* prev, Node* next) {
    Node* node = new (std::nothrow) Node{nullptr, next, prev};
    if (node == nullptr) return nullptr;
    node->element = l.CopyElement(element);
    (prev != nullptr ? prev->next : l._Head) = node;
    (next != nullptr ? next->previous : l._Tail) = node;
    ++l._Count;
    return node;
  }

  // Unlinks `node`, releases its element and frees it.
  static void unlink(NUVSysList& l, Node* node) {
    (node->previous != nullptr ? node->previous->next : l._Head) = node->next;
    (node->next != nullptr ? node->next->previous : l._Tail) = node->previous;
    --l._Count;
    if (l._Cursor == node) l._Cursor = nullptr;
    l.DeleteElement(node->element);
    delete node;
  }

  static void* at(const Node* node) { return node != nullptr ? node->element : nullptr; }
};

}  // namespace systemts::detail

using systemts::detail::ListCore;

NUVSysList::NUVSysList(NUVSysListType type, bool allowDuplicates)
    : _Head(nullptr), _Tail(nullptr), _Count(0), _Cursor(nullptr), _Type(type), _AllowDuplicates(allowDuplicates) {}

NUVSysList::NUVSysList(const NUVSysList& other)
    : _Head(nullptr),
      _Tail(nullptr),
      _Count(0),
      _Cursor(nullptr),
      _Type(other._Type),
      _AllowDuplicates(other._AllowDuplicates) {}

NUVSysList& NUVSysList::operator=(const NUVSysList& other) {
  copylist(other);
  return *this;
}

NUVSysList::~NUVSysList() {
  // DeleteElement is out of reach here (the subclass part is gone); a
  // subclass's destructor calls removeall first. Free what is left.
  for (Node* n = _Head; n != nullptr;) {
    Node* next = n->next;
    delete n;
    n = next;
  }
  _Head = _Tail = _Cursor = nullptr;
  _Count = 0;
}

unsigned long NUVSysList::Count() const { return _Count; }
void* NUVSysList::Head() const { return ListCore::at(_Head); }
void* NUVSysList::Tail() const { return ListCore::at(_Tail); }

void* NUVSysList::GetFirst() {
  _Cursor = _Head;
  return ListCore::at(_Cursor);
}

void* NUVSysList::GetNext() {
  if (_Cursor == nullptr) return nullptr;
  _Cursor = _Cursor->next != nullptr ? _Cursor->next : ListCore::circular(*this) ? _Head : nullptr;
  return ListCore::at(_Cursor);
}

void* NUVSysList::GetLast() {
  if (ListCore::circular(*this)) return GetFirst();  // kept: callers rely on it
  _Cursor = _Tail;
  return ListCore::at(_Cursor);
}

void* NUVSysList::GetPrevious() {
  if (_Cursor == nullptr) return nullptr;
  _Cursor = _Cursor->previous != nullptr ? _Cursor->previous : ListCore::circular(*this) ? _Tail : nullptr;
  return ListCore::at(_Cursor);
}

NUVSysListElementStruct* NUVSysList::Add(const void* element) {
  if (ListCore::sorted(*this)) {
    for (Node* n = _Head; n != nullptr; n = n->next) {
      _Cursor = n;
      const int c = CompareElements(n->element, element);
      if (c < 0) return addbefore(element, n);
      if (c == 0 && !_AllowDuplicates) return nullptr;
    }
    return addtail(element);
  }
  if (!_AllowDuplicates) {
    Node* const saved = _Cursor;
    for (Node* n = _Head; n != nullptr; n = n->next) {
      _Cursor = n;
      if (CompareElements(n->element, element) == 0) return nullptr;
    }
    _Cursor = saved;
  }
  return addtail(element);
}

NUVSysListElementStruct* NUVSysList::addtail(const void* element) {
  return ListCore::link(*this, element, _Tail, nullptr);
}

NUVSysListElementStruct* NUVSysList::addhead(const void* element) {
  if (element == nullptr) return nullptr;
  return ListCore::link(*this, element, nullptr, _Head);
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
  if (_Head == nullptr) return nullptr;
  ListCore::unlink(*this, _Head);
  return _Head;
}

NUVSysListElementStruct* NUVSysList::removetail() {
  if (_Tail == nullptr) return nullptr;
  ListCore::unlink(*this, _Tail);
  return _Tail;
}

NUVSysListElementStruct* NUVSysList::removeat(NUVSysListElementStruct* node) {
  if (node == nullptr) return nullptr;
  if (node == _Head) return removehead();
  if (node == _Tail) return removetail();
  Node* next = node->next;
  ListCore::unlink(*this, node);
  return next;
}

int NUVSysList::Remove(const void* element) {
  for (Node* n = _Head; n != nullptr; n = n->next) {
    if (CompareElements(n->element, element) == 0) {
      removeat(n);
      return 0;
    }
  }
  return -1;
}

int NUVSysList::Remove(unsigned long position) {
  if (position >= _Count) return -1;
  Node* n = _Head;
  for (unsigned long i = 0; i < position; ++i) n = n->next;
  removeat(n);
  return 0;
}

void NUVSysList::removeall() {
  while (_Tail != nullptr) removetail();
  _Head = _Tail = _Cursor = nullptr;
  _Count = 0;
}

void NUVSysList::copylist(const NUVSysList& other) {
  if (&other == this) return;
  removeall();
  for (const Node* n = other._Head; n != nullptr; n = n->next) addtail(n->element);
}
