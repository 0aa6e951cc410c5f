// Growable byte and character buffers.
//
// QelBuffer carries binary data for scripts and native calls, with little-endian
// 16- and 32-bit accessors at any byte offset (assembled byte by byte, so no alignment
// is needed). QelCharBuffer builds text one character at a time. Elements between
// size and capacity are always zero; a buffer frees its storage when it dies.
#pragma once

#include "qel/value.h"

class QelLineTable;

// Something built from a buffer's bytes and kept with it (the interpreter keeps the
// decoded form of a procedure's code here). The buffer lets go of it when it dies.
class QEL_API QelBufferCache {
 public:
  // What made the cache: each maker names itself by an address of its own.
  const void* maker() const { return maker_; }
  virtual void release() = 0;

 protected:
  explicit QelBufferCache(const void* maker) : maker_(maker) {}
  virtual ~QelBufferCache() {}

 private:
  const void* maker_;
};

class QEL_API QelBuffer : public QelRefObject {
 public:
  QelBuffer();
  explicit QelBuffer(unsigned int n);
  QelBuffer(const QelBuffer& b);
  QelBuffer& operator=(const QelBuffer& b);
  ~QelBuffer() override;

  // A writable byte counts as a change (see touch()).
  unsigned char& operator[](unsigned int i) {
    ++version_;
    return data_[i];
  }
  unsigned char operator[](unsigned int i) const { return data_[i]; }
  unsigned int size() const { return size_; }
  unsigned int capacity() const { return capacity_; }
  unsigned char* data() const { return data_; }

  unsigned int setCapacity(unsigned int n);
  unsigned int shrink() { return setCapacity(size_); }
  unsigned int push_back(unsigned char b) {
    if (size_ >= capacity_) setCapacity(2 * size_);
    data_[size_] = b;
    ++version_;
    return size_++;
  }
  unsigned char pop_back();
  void clear();
  QelBuffer operator+(const QelBuffer& b) const;
  QelBuffer& operator+=(const QelBuffer& b);
  // Appends n raw bytes.
  void append(const unsigned char* bytes, unsigned int n);

  QelChar getW(unsigned int off) const {
    return static_cast<QelChar>(data_[off] | (data_[off + 1] << 8));
  }
  void setW(unsigned int off, QelChar w) {
    ++version_;
    data_[off] = static_cast<unsigned char>(w);
    data_[off + 1] = static_cast<unsigned char>(w >> 8);
  }
  uint32_t getDW(unsigned int off) const {
    return static_cast<uint32_t>(data_[off]) | (static_cast<uint32_t>(data_[off + 1]) << 8) |
           (static_cast<uint32_t>(data_[off + 2]) << 16) | (static_cast<uint32_t>(data_[off + 3]) << 24);
  }
  void setDW(unsigned int off, uint32_t d) {
    ++version_;
    data_[off] = static_cast<unsigned char>(d);
    data_[off + 1] = static_cast<unsigned char>(d >> 8);
    data_[off + 2] = static_cast<unsigned char>(d >> 16);
    data_[off + 3] = static_cast<unsigned char>(d >> 24);
  }
  // The native word is 32 bits.
  uint32_t getNW(unsigned int off) const { return getDW(off); }
  void setNW(unsigned int off, uint32_t d) { setDW(off, d); }

  unsigned int push_backW(QelChar w);
  unsigned int push_backDW(uint32_t d);
  unsigned int push_backNW(uint32_t d) { return push_backDW(d); }
  QelChar pop_backW();
  uint32_t pop_backDW();
  uint32_t pop_backNW() { return pop_backDW(); }
  // Sets the size within the capacity (no zeroing, no growth); false beyond it.
  bool setSize(unsigned int n);

  // Every change made through the member functions counts, and so does taking a
  // writable byte with operator[]; a change made through data() is made known with
  // touch(), so that what was built from the bytes (a procedure's decoded code) is
  // built again.
  void touch() { ++version_; }
  uint32_t version() const { return version_; }
  QelBufferCache* cache() const { return cache_; }
  // Keeps `cache` with the buffer, letting go of the one it had.
  void setCache(QelBufferCache* cache);
  // The source lines of the code the compiler put here, or null. The buffer owns the
  // table; a copy of the buffer has none.
  const QelLineTable* lines() const { return lines_; }
  void setLines(QelLineTable* lines);

 private:
  unsigned int size_;
  unsigned int capacity_;
  unsigned char* data_;
  uint32_t version_ = 0;
  QelBufferCache* cache_ = nullptr;
  QelLineTable* lines_ = nullptr;
};

class QEL_API QelCharBuffer : public QelRefObject {
 public:
  QelCharBuffer();
  explicit QelCharBuffer(unsigned int n);
  QelCharBuffer(const QelCharBuffer& b);
  QelCharBuffer& operator=(const QelCharBuffer& b);
  ~QelCharBuffer() override;

  QelChar& operator[](unsigned int i) { return data_[i]; }
  QelChar operator[](unsigned int i) const { return data_[i]; }
  unsigned int size() const { return size_; }
  unsigned int capacity() const { return capacity_; }
  QelChar* data() const { return data_; }

  unsigned int setCapacity(unsigned int n);
  unsigned int shrink() { return setCapacity(size_); }
  void push_back(QelChar c) {
    if (size_ >= capacity_) setCapacity(2 * size_);
    data_[size_++] = c;
  }
  QelChar pop_back();
  void clear();
  QelCharBuffer operator+(const QelCharBuffer& b) const;
  QelCharBuffer& operator+=(const QelCharBuffer& b);
  void append(const QelChar* chars, unsigned int n);
  // Forces termination in the last cell and sets the size to the text's length.
  void adjustSize();

 private:
  unsigned int size_;
  unsigned int capacity_;
  QelChar* data_;
};
