// KELSysTSArrayListAbstractCtnr.cpp - the byte store of the array lists.
#include "KELSysTSArrayListAbstractCtnr.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

unsigned char* bytes(void* data) { return static_cast<unsigned char*>(data); }

}  // namespace

KELSysTSArrayListAbstractCtnr::KELSysTSArrayListAbstractCtnr(int elementSize)
    : _Data(nullptr), _Count(0), _Capacity(0), _ElementSize(elementSize) {}

KELSysTSArrayListAbstractCtnr::~KELSysTSArrayListAbstractCtnr() {
  std::free(_Data);
  _Data = nullptr;
  _Count = 0;
  _Capacity = 0;
}

int KELSysTSArrayListAbstractCtnr::MakeRoom(int i, int n) {
  if (i < 0 || i > _Count || n < 0 || n > INT_MAX - _Count) return E_FAIL;
  const int oldCount = _Count;
  const int count = oldCount + n;
  if (count > _Capacity) {
    int64_t capacity;
    if (_Capacity == 0)
      capacity = count < 4 ? 4 : count;
    else
      capacity = 2 * int64_t{_Capacity} > count ? 2 * int64_t{_Capacity} : count;
    if (capacity > INT_MAX) capacity = count;  // doubling would not fit an int; take what is needed
    const int rc = SetCapacity(static_cast<int>(capacity));
    if (rc != S_OK) return rc;
  }
  if (n == 0) return S_OK;
  _Count = count;
  if (i != oldCount) return Move(i + n, i, oldCount - i);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::SetCapacity(int c) {
  if (c < _Count) return E_FAIL;
  if (c == _Capacity) return S_OK;
  if (c < 1) {
    std::free(_Data);
    _Data = nullptr;
    _Capacity = c;
    return S_OK;
  }
  if (_ElementSize < 1) return E_FAIL;
  void* data = std::malloc(static_cast<size_t>(c) * static_cast<size_t>(_ElementSize));
  if (data == nullptr) return E_FAIL;
  if (_Count > 0) std::memcpy(data, _Data, static_cast<size_t>(_Count) * static_cast<size_t>(_ElementSize));
  std::free(_Data);
  _Data = data;
  _Capacity = c;
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::ReInit(int c) {
  _Count = 0;
  if (_Capacity < c) return SetCapacity(c);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::Move(int dst, int src, int n) {
  if (_Data == nullptr || dst < 0 || src < 0 || n < 0 || dst > _Capacity - n || src > _Capacity - n)
    return E_FAIL;
  const size_t size = static_cast<size_t>(_ElementSize);
  std::memmove(bytes(_Data) + static_cast<size_t>(dst) * size, bytes(_Data) + static_cast<size_t>(src) * size,
               static_cast<size_t>(n) * size);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::CheckIndex(int i) const { return i >= 0 && i < _Count ? S_OK : E_FAIL; }

int KELSysTSArrayListAbstractCtnr::CheckRange(int a, int b) const {
  return a < 0 || a >= b || b > _Count ? E_FAIL : S_OK;
}
