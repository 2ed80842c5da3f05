// KELSysTSArrayList.h - a typed, growable array of trivially copyable values
// on KELSysTSArrayListAbstractCtnr.
#ifndef KELSYSTSARRAYLIST_H
#define KELSYSTSARRAYLIST_H

#include <cstring>
#include <type_traits>

#include "KELSysTSArrayListAbstractCtnr.h"

// An array list of T, stored by value. T must be trivially copyable: values
// are copied as bytes and moved with memmove, and never destroyed.
//
// Threads: no locking; callers guard a list shared between threads.
// Results: S_OK (0) or E_FAIL, as the store gives them; nothing throws.
// Indexes are checked: a bad index gives E_FAIL and changes nothing.
// Growth follows the store: capacity 0, 4, 8, 16, ... when appending.
template <class T>
class KELSysTSArrayList : public KELSysTSArrayListAbstractCtnr {
  static_assert(std::is_trivially_copyable<T>::value, "KELSysTSArrayList holds trivially copyable types only");

 public:
  KELSysTSArrayList() : KELSysTSArrayListAbstractCtnr(static_cast<int>(sizeof(T))) {}

  // The number of values.
  int Size() const { return _count; }
  // The number of values the list holds before it grows.
  int Capacity() const { return _capacity; }

  // Adds `value` at the end. E_FAIL when the list cannot grow.
  int Append(const T& value) { return Insert(_count, value); }
  // Inserts `value` before index `i` (0 <= i <= Size()).
  int Insert(int i, const T& value) {
    if (MakeRoom(i, 1) != S_OK) return E_FAIL;
    std::memcpy(slot(i), &value, sizeof(T));
    return S_OK;
  }
  // Removes the value at `i` (0 <= i < Size()); later values move down.
  int Remove(int i) {
    if (CheckIndex(i) != S_OK) return E_FAIL;
    if (i + 1 < _count && Move(i, i + 1, _count - i - 1) != S_OK) return E_FAIL;
    --_count;
    return S_OK;
  }
  // Copies the value at `i` into `value`; E_FAIL (and `value` untouched) when
  // `i` is out of range.
  int Get(int i, T& value) const {
    if (CheckIndex(i) != S_OK) return E_FAIL;
    std::memcpy(&value, slot(i), sizeof(T));
    return S_OK;
  }
  // Overwrites the value at `i`; E_FAIL when `i` is out of range.
  int Set(int i, const T& value) {
    if (CheckIndex(i) != S_OK) return E_FAIL;
    std::memcpy(slot(i), &value, sizeof(T));
    return S_OK;
  }
  // Empties the list, keeping its capacity.
  void RemoveAll() { ReInit(0); }

 private:
  void* slot(int i) const { return static_cast<unsigned char*>(_data) + static_cast<size_t>(i) * sizeof(T); }
};

#endif  // KELSYSTSARRAYLIST_H
