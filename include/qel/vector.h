// The growable value array and the (vector, index) cursor.
//
// QelVector holds script vectors, procedures (code, class, name and literals), the
// member data of objects and the interpreter's own stack. Cells between size and
// capacity are always null values. A ValPtr walks a vector; stepping it past the end
// grows the vector with null values, which is how argument and stack vectors extend
// themselves on demand.
#pragma once

#include "qel/value.h"

class QEL_API QelVector : public QelRefObject {
 public:
  QelVector();
  QelVector(unsigned int n, bool setSize);
  QelVector(const QelVector& v);
  QelVector& operator=(const QelVector& v);
  ~QelVector() override;

  QelValue& operator[](unsigned int i) { return data_[i]; }
  const QelValue& operator[](unsigned int i) const { return data_[i]; }
  unsigned int size() const { return size_; }
  unsigned int capacity() const { return capacity_; }
  QelValue* data() const { return data_; }

  // New capacity n (2 when 0), never below the size; the new tail reads as nulls.
  unsigned int setCapacity(unsigned int n);
  unsigned int shrink() { return setCapacity(size_); }
  void push_back(const QelValue& v) {
    if (size_ >= capacity_) {
      // v may be an element of this vector: copy it before the storage moves.
      QelValue keep(v);
      grow();
      data_[size_++] = static_cast<QelValue&&>(keep);
      return;
    }
    data_[size_] = v;
    ++size_;
  }
  // Appends a null element.
  void push_null() {
    if (size_ >= capacity_) grow();
    ++size_;
  }
  QelValue pop_back();
  // Disposes elements from the end until the size is n (n <= size).
  void truncate(unsigned int n) {
    while (size_ > n) data_[--size_].dispose();
  }
  ValPtr first();
  ValPtr last();
  void clear();
  QelVector operator+(const QelVector& v) const;
  QelVector& operator+=(const QelVector& v);

  // Index of the first string element equal to `text`, or -1.
  int getStringIndex(const QelChar* text) const;
  // Index of the first QVT_VAR element pointing at `entry`, or -1.
  int getVarIndex(const QelDictionaryEntry* entry) const;

 private:
  void grow() { setCapacity(size_ ? 2 * size_ : 2); }

  unsigned int size_;
  unsigned int capacity_;
  QelValue* data_;
};

// A cursor on a vector: not counted. Index -1 stands on no element.
class QEL_API ValPtr {
 public:
  ValPtr() : vec_(nullptr), index_(-1) {}
  ValPtr(QelVector* v, int index) : vec_(v), index_(index) {}
  ValPtr(const ValPtr& p) = default;
  ValPtr& operator=(const ValPtr& p) = default;
  ~ValPtr() {
    vec_ = nullptr;
    index_ = -1;
  }

  // The current cell, or null when the cursor stands outside the vector.
  operator QelValue*() const {
    if (!vec_ || index_ < 0 || static_cast<unsigned>(index_) >= vec_->size()) return nullptr;
    return &(*vec_)[index_];
  }
  QelValue* operator->() const { return *this; }
  QelValue& operator*() const { return *static_cast<QelValue*>(*this); }

  // Advancing past the end pushes null values so the cursor lands on a cell.
  ValPtr& operator+=(int n) {
    if (!vec_) return *this;
    index_ += n;
    if (index_ >= 0) {
      while (static_cast<unsigned>(index_) >= vec_->size()) vec_->push_null();
    }
    return *this;
  }
  ValPtr& operator++() { return *this += 1; }
  // Deliberately answers the stepped cursor, like the prefix form.
  ValPtr& operator++(int) { return *this += 1; }
  ValPtr& operator-=(int n) {
    if (vec_) index_ -= n;
    return *this;
  }
  ValPtr& operator--() { return *this -= 1; }
  // Deliberately answers the stepped cursor, like the prefix form.
  ValPtr& operator--(int) { return *this -= 1; }

  int current() const { return index_; }
  QelVector* vector() const { return vec_; }
  // Cell index+i, no bounds check and no growth.
  QelValue& operator[](int i) const { return (*vec_)[index_ + i]; }
  // Cell index+i, or a shared null value when it lies outside the vector.
  const QelValue& at(int i) const;
  bool operator==(const ValPtr& p) const { return vec_ == p.vec_ && index_ == p.index_; }
  bool operator!=(const ValPtr& p) const { return !(*this == p); }
  // Moves the cursor to an absolute index without growing.
  void setIndex(int i) { index_ = i; }
  // The index itself, for the interpreter's dispatch loop.
  int32_t& indexRef() { return index_; }

 private:
  QelVector* vec_;
  int32_t index_;
};
