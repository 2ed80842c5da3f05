// NUVSysList.h - an abstract doubly linked list of opaque elements that may
// be sorted, unique or circular, with a cursor for iteration.
#ifndef NUVSYSLIST_H
#define NUVSYSLIST_H

#include "SystemTSCommon.h"

namespace systemts::detail {
struct ListCore;
}

// The kind of a list. Sorted kinds insert in CompareElements order on Add;
// circular kinds wrap around in GetNext and GetPrevious. Kinds 0 and 2 behave
// alike, as do 1 and 3.
enum NUVSysListType {
  NUVSysListUnsorted = 0,
  NUVSysListSorted = 1,
  NUVSysListLinear = 2,
  NUVSysListLinearSorted = 3,
  NUVSysListCircular = 4,
  NUVSysListCircularSorted = 5,
};

// One node: the stored element, the next node and the previous node.
struct NUVSysListElementStruct {
  void* element;
  NUVSysListElementStruct* next;
  NUVSysListElementStruct* previous;
};

// The list. A subclass says how elements are stored by implementing
// CopyElement, DeleteElement and CompareElements.
//
// Threads: no locking; callers guard a list shared between threads.
// Ownership: every stored element is what CopyElement returned and is
// released once through DeleteElement when it leaves the list. Nodes belong
// to the list; a node handed out is valid until it is removed.
// Failure: null (or -1) as each member says. Nothing throws.
//
// Rules:
// - Add on a sorted kind walks from the head, moving the cursor along: at
//   each element c = CompareElements(stored, new); negative inserts before
//   it; zero rejects with null unless duplicates are allowed (then the walk
//   goes on, so equal elements keep their order of arrival); positive walks
//   on. Past the end the element goes to the tail.
// - Add on an unsorted kind appends. Without duplicates it first walks the
//   whole list, moving the cursor along, and rejects with null when an element
//   compares equal (the cursor stays on it); otherwise the cursor is restored.
// - GetNext past the last element gives null, GetPrevious before the first
//   gives null; circular kinds wrap to the first and the last instead.
// - Compatibility: on circular kinds GetLast is GetFirst (it returns the first
//   element and puts the cursor there). Callers rely on it.
//
// Decisions of this implementation:
// - Nodes are linked in a line on every kind (the head's previous and the
//   tail's next are null); circular kinds only wrap in the cursor moves.
// - The cursor is moved by GetFirst/GetNext/GetLast/GetPrevious and by the
//   walk of Add, by nothing else. Moving past either end of a kind that does
//   not wrap clears it, and so does a removal that takes the cursor's node;
//   with no cursor, GetNext and GetPrevious give null.
// - Releasing elements needs the subclass: a subclass's destructor calls
//   removeall(), and its copy constructor calls copylist(other). The base
//   destructor never calls DeleteElement: it frees the nodes left and leaves
//   their elements to their owner. The base copy constructor takes the
//   other's kind and duplicates flag and starts empty.
// - Assignment is copylist: it keeps this list's kind and flag. Copying a
//   list onto itself does nothing.
// - Remove(const void*) and Remove(unsigned long) give 0 when an element was
//   removed, -1 when none matched or the position is past the end. With a
//   literal 0, write Remove(0UL) or Remove(nullptr).
// - addtail accepts a null element and hands it to CopyElement, and so does
//   Add when it ends at the tail (a null element reaching addbefore is
//   refused); CopyElement and CompareElements must accept null there.
// - Node allocation failure gives null from the insertions.
class SYSTEMTS_API NUVSysList {
 public:
  // An empty list of kind `type`; `allowDuplicates` lets Add store elements
  // that compare equal.
  NUVSysList(NUVSysListType type, bool allowDuplicates);
  // Takes `other`'s kind and duplicates flag and starts empty; a subclass's
  // copy constructor calls copylist(other).
  NUVSysList(const NUVSysList& other);
  // copylist(other).
  NUVSysList& operator=(const NUVSysList& other);
  // Frees the nodes left without calling DeleteElement (see Decisions).
  virtual ~NUVSysList();

  // Returns the pointer to store for the caller's `element`.
  virtual void* CopyElement(const void* element) = 0;
  // Releases a stored element.
  virtual void DeleteElement(void* element) = 0;
  // 0 when `other` equals `stored`, negative when `other` must come before
  // `stored`, positive otherwise.
  virtual int CompareElements(const void* stored, const void* other) = 0;

  // The number of elements.
  unsigned long Count() const;
  // The first and last elements, null when empty; the cursor stays.
  void* Head() const;
  void* Tail() const;

  // Cursor moves; each returns the element reached, or null.
  void* GetFirst();
  void* GetNext();
  void* GetLast();
  void* GetPrevious();

  // Inserts CopyElement(`element`) by the list's rules (see Rules); the new
  // node, or null when rejected.
  NUVSysListElementStruct* Add(const void* element);
  // Insertions at a place, each storing CopyElement(`element`) and returning
  // the new node. addhead, addafter and addbefore give null for a null
  // element; addafter and addbefore give null for a null node, which must be
  // a node of this list.
  NUVSysListElementStruct* addtail(const void* element);
  NUVSysListElementStruct* addhead(const void* element);
  NUVSysListElementStruct* addafter(const void* element, NUVSysListElementStruct* node);
  NUVSysListElementStruct* addbefore(const void* element, NUVSysListElementStruct* node);

  // Removals; each removed element goes through DeleteElement.
  // removehead: the new head node (null when empty after, or before).
  NUVSysListElementStruct* removehead();
  // removetail: the new tail node (null when empty after, or before).
  NUVSysListElementStruct* removetail();
  // removeat: for the head, removehead's result; for the tail, removetail's
  // (the new tail, not the successor); otherwise the successor. Null for a
  // null node, which must otherwise be a node of this list.
  NUVSysListElementStruct* removeat(NUVSysListElementStruct* node);
  // The first element that CompareElements(stored, `element`) finds equal.
  int Remove(const void* element);
  // The element at zero-based `position`.
  int Remove(unsigned long position);
  // Removes from the tail until empty; clears the cursor.
  void removeall();

  // Empties this list, then addtail's every element of `other` in order.
  void copylist(const NUVSysList& other);

 private:
  friend struct systemts::detail::ListCore;

  NUVSysListElementStruct* _head;
  NUVSysListElementStruct* _tail;
  unsigned long _count;
  NUVSysListElementStruct* _cursor;
  NUVSysListType _type;
  bool _allowDuplicates;
};

#endif  // NUVSYSLIST_H
