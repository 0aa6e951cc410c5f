// Byte and character buffers. Both keep the tail beyond the size zeroed and free
// their storage when they die.
#include <cstdlib>
#include <cstring>

#include "qel/buffer.h"
#include "qel/lines.h"
#include "qel/platform.h"
#include "value/heap.h"

namespace {

template <typename T>
T* allocZeroed(unsigned int n) {
  T* block = static_cast<T*>(calloc(n, sizeof(T)));
  if (!block) errorExit(1);
  qel::heapTook(block);
  return block;
}

// Reallocates to n elements, zeroing what is added.
template <typename T>
T* resizeZeroed(T* block, unsigned int oldCap, unsigned int n) {
  qel::heapGave(block);
  void* p = realloc(block, static_cast<size_t>(n) * sizeof(T));
  if (!p) errorExit(1);
  qel::heapTook(p);
  T* grown = static_cast<T*>(p);
  if (n > oldCap) memset(grown + oldCap, 0, (n - oldCap) * sizeof(T));
  return grown;
}

template <typename T>
void freeStorage(T* block) {
  qel::heapGave(block);
  free(block);
}

}  // namespace

// ---- QelBuffer ----

QelBuffer::QelBuffer() : size_(0), capacity_(1), data_(allocZeroed<unsigned char>(1)) {}

QelBuffer::QelBuffer(unsigned int n) : size_(0), capacity_(n ? n : 1) {
  data_ = allocZeroed<unsigned char>(capacity_);
}

QelBuffer::QelBuffer(const QelBuffer& b) : QelRefObject(), size_(b.size_), capacity_(b.capacity_) {
  data_ = allocZeroed<unsigned char>(capacity_);
  memcpy(data_, b.data_, size_);
}

QelBuffer& QelBuffer::operator=(const QelBuffer& b) {
  if (this == &b) return *this;
  ++version_;
  unsigned char* block = allocZeroed<unsigned char>(b.capacity_);
  memcpy(block, b.data_, b.size_);
  freeStorage(data_);
  data_ = block;
  size_ = b.size_;
  capacity_ = b.capacity_;
  return *this;
}

QelBuffer::~QelBuffer() {
  if (cache_) cache_->release();
  delete lines_;
  freeStorage(data_);
}

void QelBuffer::setCache(QelBufferCache* cache) {
  if (cache_) cache_->release();
  cache_ = cache;
}

void QelBuffer::setLines(QelLineTable* lines) {
  if (lines == lines_) return;
  delete lines_;
  lines_ = lines;
}

unsigned int QelBuffer::setCapacity(unsigned int n) {
  ++version_;
  if (n == 0) n = 1;
  if (n < size_) n = size_;
  if (n != capacity_) {
    data_ = resizeZeroed(data_, capacity_, n);
    capacity_ = n;
  }
  return capacity_;
}

unsigned char QelBuffer::pop_back() {
  if (size_ == 0) return 0;
  ++version_;
  unsigned char b = data_[--size_];
  data_[size_] = 0;
  return b;
}

void QelBuffer::clear() {
  ++version_;
  memset(data_, 0, size_);
  size_ = 0;
}

void QelBuffer::append(const unsigned char* bytes, unsigned int n) {
  if (n == 0) return;
  ++version_;
  if (capacity_ < size_ + n) setCapacity(size_ + n);
  memmove(data_ + size_, bytes, n);
  size_ += n;
}

QelBuffer QelBuffer::operator+(const QelBuffer& b) const {
  QelBuffer sum(size_ + b.size_);
  sum.append(data_, size_);
  sum.append(b.data_, b.size_);
  return sum;
}

QelBuffer& QelBuffer::operator+=(const QelBuffer& b) {
  ++version_;
  unsigned int n = b.size_;
  if (capacity_ < size_ + n) setCapacity(size_ + n);
  memmove(data_ + size_, b.data_, n);  // b may be this buffer
  size_ += n;
  return *this;
}

unsigned int QelBuffer::push_backW(QelChar w) {
  push_back(static_cast<unsigned char>(w));
  push_back(static_cast<unsigned char>(w >> 8));
  return size_ - 2;
}

unsigned int QelBuffer::push_backDW(uint32_t d) {
  push_backW(static_cast<QelChar>(d));
  push_backW(static_cast<QelChar>(d >> 16));
  return size_ - 4;
}

QelChar QelBuffer::pop_backW() {
  unsigned int high = pop_back();
  unsigned int low = pop_back();
  return static_cast<QelChar>(low | (high << 8));
}

uint32_t QelBuffer::pop_backDW() {
  uint32_t high = pop_backW();
  uint32_t low = pop_backW();
  return low | (high << 16);
}

bool QelBuffer::setSize(unsigned int n) {
  if (n > capacity_) return false;
  ++version_;
  size_ = n;
  return true;
}

// ---- QelCharBuffer ----

QelCharBuffer::QelCharBuffer() : size_(0), capacity_(1), data_(allocZeroed<QelChar>(1)) {}

QelCharBuffer::QelCharBuffer(unsigned int n) : size_(0), capacity_(n ? n : 1) {
  data_ = allocZeroed<QelChar>(capacity_);
}

QelCharBuffer::QelCharBuffer(const QelCharBuffer& b) : QelRefObject(), size_(b.size_), capacity_(b.capacity_) {
  data_ = allocZeroed<QelChar>(capacity_);
  memcpy(data_, b.data_, size_ * sizeof(QelChar));
}

QelCharBuffer& QelCharBuffer::operator=(const QelCharBuffer& b) {
  if (this == &b) return *this;
  QelChar* block = allocZeroed<QelChar>(b.capacity_);
  memcpy(block, b.data_, b.size_ * sizeof(QelChar));
  freeStorage(data_);
  data_ = block;
  size_ = b.size_;
  capacity_ = b.capacity_;
  return *this;
}

QelCharBuffer::~QelCharBuffer() { freeStorage(data_); }

unsigned int QelCharBuffer::setCapacity(unsigned int n) {
  if (n == 0) n = 1;
  if (n < size_) n = size_;
  if (n != capacity_) {
    data_ = resizeZeroed(data_, capacity_, n);
    capacity_ = n;
  }
  return capacity_;
}

QelChar QelCharBuffer::pop_back() {
  if (size_ == 0) return 0;
  QelChar c = data_[--size_];
  data_[size_] = 0;
  return c;
}

void QelCharBuffer::clear() {
  memset(data_, 0, size_ * sizeof(QelChar));
  size_ = 0;
}

void QelCharBuffer::append(const QelChar* chars, unsigned int n) {
  if (n == 0) return;
  if (capacity_ < size_ + n) setCapacity(size_ + n);
  memmove(data_ + size_, chars, n * sizeof(QelChar));
  size_ += n;
}

QelCharBuffer QelCharBuffer::operator+(const QelCharBuffer& b) const {
  QelCharBuffer sum(size_ + b.size_);
  sum.append(data_, size_);
  sum.append(b.data_, b.size_);
  return sum;
}

QelCharBuffer& QelCharBuffer::operator+=(const QelCharBuffer& b) {
  unsigned int n = b.size_;
  if (capacity_ < size_ + n) setCapacity(size_ + n);
  memmove(data_ + size_, b.data_, n * sizeof(QelChar));
  size_ += n;
  return *this;
}

void QelCharBuffer::adjustSize() {
  if (!data_) {
    size_ = 0;
    return;
  }
  data_[capacity_ - 1] = 0;
  unsigned int n = 0;
  while (data_[n]) ++n;
  size_ = n;
}
