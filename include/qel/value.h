// The value cell and reference counting.
//
// Every datum the engine handles is a QelValue: a 32-bit type tag and an 8-byte
// payload holding an integer, a float, a double or a pointer. Heap objects (vectors,
// strings, buffers, dictionaries, classes, objects) derive from QelRefObject and are
// shared by counting. Whether a value owns one count of its object is told by its
// type alone: types 6 to 13 own, every other type merely refers. The reference types
// 15 to 23 are the owning types 5 to 13 plus 10; they point at the same kind of object
// without holding a count, which is how a script makes a non-owning alias ("=>").
//
// Copying an owning value counts; copying anything else never touches memory outside
// the cell. A zero-filled block is a valid array of null values.
#pragma once

#include <utility>

#include "qel/config.h"

class QelVector;
class QelBuffer;
class QelCharBuffer;
class QelClass;
class QelObject;
class QelString;
class QelDictionary;
class QelDictionaryEntry;

// Base of every shared heap object: a virtual destructor and a signed count.
//
// Besides the count of owning values, an object keeps a tally of the non-owning
// reference values that point at it. When the last owner lets go while references
// remain, the object is finished (an object's script destructor runs, containers
// drop their elements) and marked dead, but its memory stays until the last reference
// is gone; a reference to a dead object reads as null. So a reference can never
// reach freed memory.
class QEL_API QelRefObject {
 public:
  virtual ~QelRefObject() {}
  // Counted on the heap tally of the allocating thread (a machine's memory limit).
  static void* operator new(size_t n);
  static void operator delete(void* p, size_t n);
  int32_t addRef() { return ++refCnt_; }
  // Drops one count; at 0 or below the object deletes itself and 0 is answered.
  int32_t release() {
    if (--refCnt_ > 0) return refCnt_;
    lastRelease();
    return 0;
  }
  int32_t getRefCnt() const { return refCnt_; }
  void setRefCnt(int32_t n) { refCnt_ = n; }

  // The tally of reference values pointing here.
  void addWeak() { ++weak_; }
  void dropWeak() {
    --weak_;
    if ((weak_ & kWeakMask) == 0 && refCnt_ <= 0) lastWeakDropped();
  }
  bool isDead() const { return (weak_ & kDead) != 0; }
  // Ends the object now although references remain (a script's "delete").
  void destroy();

 protected:
  QelRefObject() : refCnt_(0), weak_(0) {}
  QelRefObject(const QelRefObject&) : refCnt_(0), weak_(0) {}
  QelRefObject& operator=(const QelRefObject& o) {
    refCnt_ = o.refCnt_;
    return *this;
  }
  // Marks objects whose end runs a script destructor, and containers whose elements
  // are dropped when they die with references left.
  void setFinishKind(bool isObject, bool isContainer) {
    weak_ |= (isObject ? kIsObject : 0u) | (isContainer ? kIsContainer : 0u);
  }

 private:
  static constexpr uint32_t kDead = 0x80000000u;
  static constexpr uint32_t kDying = 0x40000000u;
  static constexpr uint32_t kIsObject = 0x20000000u;
  static constexpr uint32_t kIsContainer = 0x10000000u;
  static constexpr uint32_t kAbandoned = 0x08000000u;
  static constexpr uint32_t kDeferred = 0x04000000u;
  static constexpr uint32_t kWeakMask = 0x03FFFFFFu;

  friend class QelValue;
  void lastRelease();
  void lastWeakDropped();
  void endWithinDepth();
  void end();
  void finish();

  int32_t refCnt_;
  uint32_t weak_;
};

enum QelValueType : int32_t {
  QVT_NULL = 0,
  QVT_INTEGER = 1,
  QVT_FLOAT = 2,
  QVT_DOUBLE = 3,
  QVT_FILE = 4,
  QVT_CODE = 5,
  QVT_BYTECODE = 6,
  QVT_BUFFER = 7,
  QVT_CHARBUFFER = 8,
  QVT_CLASS = 9,
  QVT_OBJECT = 10,
  QVT_VECTOR = 11,
  QVT_STRING = 12,
  QVT_DICTIONARY = 13,
  QVT_VAR = 14,
  QVT_CODEREF = 15,
  QVT_BYTECODEREF = 16,
  QVT_BUFFERREF = 17,
  QVT_CHARBUFFERREF = 18,
  QVT_CLASSREF = 19,
  QVT_OBJECTREF = 20,
  QVT_VECTORREF = 21,
  QVT_STRINGREF = 22,
  QVT_DICTIONARYREF = 23,
};

// Distance between an owning type and its reference twin.
constexpr int32_t QVT_REF_OFFSET = 10;
constexpr int QVT_TYPE_COUNT = 24;

// The printed name of a type ("QVT_STRING"); no range check.
QEL_API const QelChar* getValueTypeName(QelValueType type);

inline bool qelOwnsCount(QelValueType t) { return t >= QVT_BYTECODE && t <= QVT_DICTIONARY; }
// Reference types that point at a heap object (a native function reference does not).
inline bool qelIsObjectRef(QelValueType t) { return t >= QVT_BYTECODEREF && t <= QVT_DICTIONARYREF; }

class QEL_API QelValue {
 public:
  QelValue() : type_(QVT_NULL) { u_.bits = 0; }
  // The payload is written whole in one store (a part-written payload read back whole
  // stalls the processor).
  QelValue(int32_t l) : type_(QVT_INTEGER) { u_.bits = wordBits(l); }
  QelValue(float f) : type_(QVT_FLOAT) { u_.bits = floatBits(f); }
  QelValue(double d) : type_(QVT_DOUBLE) { u_.d = d; }
  QelValue(void* file) : type_(QVT_FILE) { u_.p = file; }
  QelValue(QelNativeFunction fn) : type_(QVT_CODE) { u_.fn = fn; }
  QelValue(QelVector* v, bool bytecode = false, bool ref = false);
  QelValue(QelBuffer* b, bool ref = false);
  QelValue(QelCharBuffer* b, bool ref = false);
  QelValue(QelClass* c, bool ref = false);
  QelValue(QelObject* o, bool ref = false);
  QelValue(QelString* s, bool ref = false);
  QelValue(QelDictionary* d, bool ref = false);
  QelValue(QelDictionaryEntry* e) : type_(QVT_VAR) { u_.p = e; }
  // Untyped form: counts for every type below 15 (see assignRef).
  QelValue(QelRefObject* obj, QelValueType type);
  QelValue(const QelValue& v) : type_(v.type_), u_(v.u_) { hold(); }
  // Moving transfers the count: the source becomes null.
  QelValue(QelValue&& v) noexcept : type_(v.type_), u_(v.u_) {
    v.type_ = QVT_NULL;
    v.u_.bits = 0;
  }
  ~QelValue() { dispose(); }

  // The new object is counted before the old one is released, and the cell is
  // complete before the release runs: a release may run a script destructor that
  // moves the stack this cell or the source lives in.
  QelValue& operator=(const QelValue& v) {
    if (this == &v) return *this;
    QelValueType oldType = type_;
    Payload old = u_;
    type_ = v.type_;
    u_ = v.u_;
    hold();
    let(oldType, old.o);
    return *this;
  }
  QelValue& operator=(QelValue&& v) noexcept {
    if (this == &v) return *this;
    QelValueType oldType = type_;
    Payload old = u_;
    type_ = v.type_;
    u_ = v.u_;
    v.type_ = QVT_NULL;
    v.u_.bits = 0;
    let(oldType, old.o);
    return *this;
  }

  // Releases an owned object and leaves a null value; safe to repeat.
  void dispose() {
    QelValueType t = type_;
    QelRefObject* o = u_.o;
    type_ = QVT_NULL;
    u_.bits = 0;
    let(t, o);
  }
  // Replaces the pointer, keeping the type; counts for every type below 15.
  void assignRef(QelRefObject* obj);
  // Turns an owning value into its reference twin, giving up its count without ever
  // deleting (the make-reference operation).
  void makeReference();

  QelValueType getType() const { return type_; }
  void setType(QelValueType t) { type_ = t; }
  QelRefObject* getRef() const { return u_.o; }
  void* ptr() const { return u_.p; }
  // The address of the raw data, for native library calls.
  void* addr();

  // Object conversions answer null when the type does not match.
  operator QelClass*() const;
  operator QelObject*() const;
  operator QelVector*() const;
  operator QelString*() const;
  operator QelBuffer*() const;
  operator QelCharBuffer*() const;
  operator QelDictionary*() const;
  operator QelDictionaryEntry*() const;
  operator QelNativeFunction() const { return type_ == QVT_CODE ? u_.fn : nullptr; }
  operator void*() const { return type_ == QVT_FILE ? u_.p : nullptr; }

  // Numeric conversions; a non-numeric value reads as the largest finite float or
  // double, and as its first 32 payload bits for the integer conversion.
  int32_t toLong() const {
    if (type_ == QVT_INTEGER) return u_.l;
    if (type_ == QVT_FLOAT) return truncToLong(u_.f);
    if (type_ == QVT_DOUBLE) return truncToLong(u_.d);
    return lowWord();
  }
  float toFloat() const;
  double toDouble() const;
  operator int32_t() const { return toLong(); }
  operator float() const { return toFloat(); }
  operator double() const { return toDouble(); }

  // Direct payload access for the interpreter's fast paths.
  int32_t& rawLong() { return u_.l; }
  float& rawFloat() { return u_.f; }
  double& rawDouble() { return u_.d; }
  // The first 32 bits of the payload: the integer, the float's bits, the low half of a
  // double or of a pointer.
  int32_t lowWord() const { return static_cast<int32_t>(static_cast<uint32_t>(u_.bits)); }
  uint64_t rawBits() const { return u_.bits; }

  bool isNull() const { return type_ == QVT_NULL; }
  // A value that holds nothing on an object: copying it is a plain copy of the cell.
  bool isPlain() const { return (kPlainTypes >> (static_cast<uint32_t>(type_) & 31)) & 1; }
  // Copies a plain value into a plain cell; both must be plain.
  void assignPlain(const QelValue& v) {
    type_ = v.type_;
    u_ = v.u_;
  }
  // Copies v into this cell when both are plain, else assigns as usual.
  void assignFast(const QelValue& v) {
    if (isPlain() && v.isPlain()) {
      type_ = v.type_;
      u_ = v.u_;
    } else {
      *this = v;
    }
  }
  bool isObject() const { return type_ == QVT_OBJECT || type_ == QVT_OBJECTREF; }
  bool isString() const { return type_ == QVT_STRING || type_ == QVT_STRINGREF; }
  bool isNumber() const { return type_ >= QVT_INTEGER && type_ <= QVT_DOUBLE; }

  // Sets an integer, releasing whatever was held.
  void setLong(int32_t l) {
    QelValueType oldType = type_;
    QelRefObject* old = u_.o;
    type_ = QVT_INTEGER;
    u_.bits = wordBits(l);
    let(oldType, old);
  }
  void setFloat(float f) {
    QelValueType oldType = type_;
    QelRefObject* old = u_.o;
    type_ = QVT_FLOAT;
    u_.bits = floatBits(f);
    let(oldType, old);
  }
  void setDouble(double d) {
    QelValueType oldType = type_;
    QelRefObject* old = u_.o;
    type_ = QVT_DOUBLE;
    u_.d = d;
    let(oldType, old);
  }

 private:
  // Types 0 to 5, QVT_VAR and QVT_CODEREF hold nothing on an object.
  static constexpr uint32_t kPlainTypes = 0x3Fu | (1u << QVT_VAR) | (1u << QVT_CODEREF);
  static int32_t truncToLong(double d);
  // The payload of an integer or a float: the 32 bits first, the rest zero.
  static uint64_t wordBits(int32_t l) { return static_cast<uint64_t>(static_cast<uint32_t>(l)); }
  static uint64_t floatBits(float f) {
    uint32_t bits;
    __builtin_memcpy(&bits, &f, sizeof bits);
    return bits;
  }
  // Takes what this cell's type holds on its object: a count or a reference tally.
  void hold() const {
    if (qelOwnsCount(type_)) {
      if (u_.o) u_.o->addRef();
    } else if (qelIsObjectRef(type_) && u_.o) {
      u_.o->addWeak();
    }
  }
  // Lets go of what a cell of type t held on o.
  static void let(QelValueType t, QelRefObject* o) {
    if (qelOwnsCount(t)) {
      if (o) o->release();
    } else if (qelIsObjectRef(t) && o) {
      o->dropWeak();
    }
  }

  QelValueType type_;
  union Payload {
    int32_t l;
    float f;
    double d;
    void* p;
    QelRefObject* o;
    QelNativeFunction fn;
    uint64_t bits;
  } u_;
};

static_assert(sizeof(QelValue) == 16, "a value cell is a tag and an 8-byte payload");
