// Growable value arrays.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "qel/dictionary.h"
#include "qel/platform.h"
#include "value/heap.h"

namespace {

QelValue* allocCells(unsigned int n) {
  void* block = calloc(n, sizeof(QelValue));
  qel::heapTook(block);
  return static_cast<QelValue*>(block);
}

void freeCells(QelValue* cells) {
  qel::heapGave(cells);
  free(cells);
}

const QelValue kNullValue;

}  // namespace

QelVector::QelVector() : size_(0), capacity_(2), data_(allocCells(2)) {
  setFinishKind(false, true);
  if (!data_) capacity_ = 0;
}

QelVector::QelVector(unsigned int n, bool setSize) : size_(0), capacity_(n < 2 ? 2 : n) {
  setFinishKind(false, true);
  data_ = allocCells(capacity_);
  if (!data_) {
    capacity_ = 0;
    return;
  }
  if (setSize) size_ = n;
}

QelVector::QelVector(const QelVector& v) : QelRefObject(), size_(0), capacity_(v.capacity_ < 2 ? 2 : v.capacity_) {
  setFinishKind(false, true);
  data_ = allocCells(capacity_);
  if (!data_) errorExit(1);
  for (unsigned int i = 0; i < v.size_; ++i) data_[i] = v.data_[i];
  size_ = v.size_;
}

QelVector& QelVector::operator=(const QelVector& v) {
  if (this == &v) return *this;
  unsigned int cap = v.capacity_ < 2 ? 2 : v.capacity_;
  QelValue* block = allocCells(cap);
  if (!block) errorExit(1);
  for (unsigned int i = 0; i < v.size_; ++i) block[i] = v.data_[i];
  QelValue* old = data_;
  unsigned int oldSize = size_;
  data_ = block;
  size_ = v.size_;
  capacity_ = cap;
  for (unsigned int i = 0; i < oldSize; ++i) old[i].dispose();
  freeCells(old);
  return *this;
}

QelVector::~QelVector() {
  for (unsigned int i = 0; i < size_; ++i) data_[i].dispose();
  freeCells(data_);
}

unsigned int QelVector::setCapacity(unsigned int n) {
  if (n < 2) n = 2;
  if (n < size_) n = size_;
  if (n == capacity_ && data_) return capacity_;
  // Cells are moved bitwise: a value owns nothing that depends on its address.
  qel::heapGave(data_);
  void* block = realloc(static_cast<void*>(data_), static_cast<size_t>(n) * sizeof(QelValue));
  if (!block) errorExit(1);
  qel::heapTook(block);
  data_ = static_cast<QelValue*>(block);
  if (n > capacity_) memset(static_cast<void*>(data_ + capacity_), 0, (n - capacity_) * sizeof(QelValue));
  capacity_ = n;
  return capacity_;
}

QelValue QelVector::pop_back() {
  if (size_ == 0) return QelValue();
  --size_;
  QelValue v(std::move(data_[size_]));
  return v;
}

ValPtr QelVector::first() { return ValPtr(this, size_ ? 0 : -1); }

ValPtr QelVector::last() { return ValPtr(this, static_cast<int>(size_) - 1); }

void QelVector::clear() { truncate(0); }

QelVector QelVector::operator+(const QelVector& v) const {
  QelVector sum(size_ + v.size_, false);
  for (unsigned int i = 0; i < size_; ++i) sum.push_back(data_[i]);
  for (unsigned int i = 0; i < v.size_; ++i) sum.push_back(v.data_[i]);
  return sum;
}

QelVector& QelVector::operator+=(const QelVector& v) {
  unsigned int n = v.size_;
  if (capacity_ < size_ + n) setCapacity(size_ + n);
  // Reads from v after the reallocation, so appending a vector to itself works.
  for (unsigned int i = 0; i < n; ++i) data_[size_ + i] = v.data_[i];
  size_ += n;
  return *this;
}

int QelVector::getStringIndex(const QelChar* text) const {
  if (!data_ || !text) return -1;
  for (unsigned int i = 0; i < size_; ++i) {
    QelString* s = data_[i];
    if (s && s->equals(text)) return static_cast<int>(i);
  }
  return -1;
}

int QelVector::getVarIndex(const QelDictionaryEntry* entry) const {
  if (!data_ || !entry) return -1;
  for (unsigned int i = 0; i < size_; ++i) {
    if (data_[i].getType() == QVT_VAR && data_[i].ptr() == entry) return static_cast<int>(i);
  }
  return -1;
}

const QelValue& ValPtr::at(int i) const {
  if (!vec_) return kNullValue;
  int64_t k = static_cast<int64_t>(index_) + i;
  if (k < 0 || k >= static_cast<int64_t>(vec_->size())) return kNullValue;
  return (*vec_)[static_cast<unsigned>(k)];
}
