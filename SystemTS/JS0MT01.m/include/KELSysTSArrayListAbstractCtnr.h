// KELSysTSArrayListAbstractCtnr.h - the growable byte store under the typed
// array lists: elements of one fixed size, kept contiguous.
#ifndef KELSYSTSARRAYLISTABSTRACTCTNR_H
#define KELSYSTSARRAYLISTABSTRACTCTNR_H

#include "SystemTSCommon.h"

// A contiguous store of Count elements of ElementSize bytes each, in a malloc
// block of Capacity elements. Elements are raw bytes: moved with memmove,
// never constructed or destroyed. KELSysTSArrayList<T> (KELSysTSArrayList.h)
// is the typed list on top of it.
//
// Threads: no locking; callers guard a store shared between threads.
// Ownership: the store owns its block.
// Results: S_OK (0) for success, E_FAIL for every failure. Nothing throws.
//
// Growth (MakeRoom): from capacity 0, 4 elements when the new count is below
// 4, else the new count; afterwards the larger of twice the capacity and the
// new count. So appending one at a time gives 0, 4, 8, 16, ...
//
// Decisions of this implementation:
// - SetCapacity allocates before it records anything: when memory runs out it
//   gives E_FAIL and the store is unchanged.
// - Move refuses (E_FAIL) a negative count or index and any range that does
//   not lie inside the capacity, as well as a store without data.
// - MakeRoom refuses a count that would pass INT_MAX; when twice the capacity
//   would, it grows to just the new count.
// - An element size below 1 makes every allocation fail.
// - The gap MakeRoom opens holds stale bytes until the caller writes it.
// - Copying is disabled: the block cannot be shared. Not polymorphic: no
//   virtual destructor.
class SYSTEMTS_API KELSysTSArrayListAbstractCtnr {
 public:
  // An empty store (no data, capacity 0) for elements of `elementSize` bytes.
  explicit KELSysTSArrayListAbstractCtnr(int elementSize);
  // Frees the data; count and capacity become 0.
  ~KELSysTSArrayListAbstractCtnr();

  KELSysTSArrayListAbstractCtnr(const KELSysTSArrayListAbstractCtnr&) = delete;
  KELSysTSArrayListAbstractCtnr& operator=(const KELSysTSArrayListAbstractCtnr&) = delete;

  // Opens a gap of `n` elements at index `i` (0 <= i <= count, n >= 0),
  // growing as above and moving elements i..count-1 up by n. E_FAIL for a bad
  // index or count, or when growth fails (nothing is changed then).
  int MakeRoom(int i, int n);
  // Sets the capacity to `c` elements, keeping the elements. E_FAIL when `c`
  // is below the count or memory runs out; S_OK at once when `c` is the
  // capacity. A capacity below 1 frees the data.
  int SetCapacity(int c);
  // Empties the store (count 0) and grows it to `c` elements when the
  // capacity is smaller; never shrinks. E_FAIL when growth fails.
  int ReInit(int c);
  // memmove of `n` elements from index `src` to index `dst`, anywhere inside
  // the capacity. E_FAIL without data or out of range.
  int Move(int dst, int src, int n);
  // S_OK for 0 <= i < count, else E_FAIL.
  int CheckIndex(int i) const;
  // E_FAIL when a < 0, a >= b or b > count, else S_OK.
  int CheckRange(int a, int b) const;

 protected:
  void* _data;       // null when the capacity is 0
  int _count;        // elements in use
  int _capacity;     // elements the data can hold
  int _elementSize;  // bytes per element, fixed at construction
};

#endif  // KELSYSTSARRAYLISTABSTRACTCTNR_H
