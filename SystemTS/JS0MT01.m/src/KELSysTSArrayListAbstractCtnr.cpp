// KELSysTSArrayListAbstractCtnr.cpp - the byte store of the array lists.
#include "KELSysTSArrayListAbstractCtnr.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "SysCalls.h"
namespace {

unsigned char* bytes(void* data) { return static_cast<unsigned char*>(data); }

}  // namespace

KELSysTSArrayListAbstractCtnr::KELSysTSArrayListAbstractCtnr(int elementSize)
    : _data(nullptr), _count(0), _capacity(0), _elementSize(elementSize) {}

KELSysTSArrayListAbstractCtnr::~KELSysTSArrayListAbstractCtnr() {
  std::free(_data);
  _data = nullptr;
  _count = 0;
  _capacity = 0;
}

int KELSysTSArrayListAbstractCtnr::MakeRoom(int i, int n) {
  if (i < 0 || i > _count || n < 0 || n > INT_MAX - _count) return E_FAIL;
  const int oldCount = _count;
  const int count = oldCount + n;
  if (count > _capacity) {
    int64_t capacity;
    if (_capacity == 0)
      capacity = count < 4 ? 4 : count;
    else
      capacity = 2 * int64_t{_capacity} > count ? 2 * int64_t{_capacity} : count;
    if (capacity > INT_MAX) capacity = count;  // doubling would not fit an int; take what is needed
    const int rc = SetCapacity(static_cast<int>(capacity));
    if (rc != S_OK) return rc;
  }
  if (n == 0) return S_OK;
  _count = count;
  if (i != oldCount) return Move(i + n, i, oldCount - i);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::SetCapacity(int c) {
  if (c < _count) return E_FAIL;
  if (c == _capacity) return S_OK;
  if (c < 1) {
    std::free(_data);
    _data = nullptr;
    _capacity = c;
    return S_OK;
  }
  if (_elementSize < 1) return E_FAIL;
  void* data = systemts::detail::g_sys.malloc(static_cast<size_t>(c) * static_cast<size_t>(_elementSize));
  if (data == nullptr) return E_FAIL;
  if (_count > 0) std::memcpy(data, _data, static_cast<size_t>(_count) * static_cast<size_t>(_elementSize));
  std::free(_data);
  _data = data;
  _capacity = c;
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::ReInit(int c) {
  _count = 0;
  if (_capacity < c) return SetCapacity(c);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::Move(int dst, int src, int n) {
  if (_data == nullptr || dst < 0 || src < 0 || n < 0 || dst > _capacity - n || src > _capacity - n)
    return E_FAIL;
  const size_t size = static_cast<size_t>(_elementSize);
  std::memmove(bytes(_data) + static_cast<size_t>(dst) * size, bytes(_data) + static_cast<size_t>(src) * size,
               static_cast<size_t>(n) * size);
  return S_OK;
}

int KELSysTSArrayListAbstractCtnr::CheckIndex(int i) const { return i >= 0 && i < _count ? S_OK : E_FAIL; }

int KELSysTSArrayListAbstractCtnr::CheckRange(int a, int b) const {
  return a < 0 || a >= b || b > _count ? E_FAIL : S_OK;
}
