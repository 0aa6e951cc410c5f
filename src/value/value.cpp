// Value cells: typed constructors, conversions and the untyped ownership operations.
#include <cfloat>
#include <cmath>
#include <vector>

#include "qel/buffer.h"
#include "qel/class.h"
#include "qel/dictionary.h"

namespace {

// One table of printed type names, indexed by QelValueType.
const QelChar* const kTypeNames[QVT_TYPE_COUNT] = {
    u"QVT_NULL",      u"QVT_INTEGER",    u"QVT_FLOAT",       u"QVT_DOUBLE",     u"QVT_FILE",
    u"QVT_CODE",      u"QVT_BYTECODE",   u"QVT_BUFFER",      u"QVT_CHARBUFFER", u"QVT_CLASS",
    u"QVT_OBJECT",    u"QVT_VECTOR",     u"QVT_STRING",      u"QVT_DICTIONARY", u"QVT_VAR",
    u"QVT_CODEREF",   u"QVT_BYTECODEREF", u"QVT_BUFFERREF",  u"QVT_CHARBUFFERREF",
    u"QVT_CLASSREF",  u"QVT_OBJECTREF",  u"QVT_VECTORREF",   u"QVT_STRINGREF",
    u"QVT_DICTIONARYREF",
};

// The untyped operations count for every type below the reference types; of those,
// only the heap kinds carry a counted object, so the count is taken for them.
bool untypedCounts(QelValueType t) { return t < QVT_CODEREF && qelOwnsCount(t); }

QelValueType typedKind(QelValueType owning, bool ref) {
  return ref ? static_cast<QelValueType>(owning + QVT_REF_OFFSET) : owning;
}

}  // namespace

const QelChar* getValueTypeName(QelValueType type) { return kTypeNames[type]; }

#define QEL_TYPED_CONSTRUCTOR(Class, Kind)                         \
  QelValue::QelValue(Class* obj, bool ref) : type_(typedKind(Kind, ref)) { \
    u_.bits = 0;                                                    \
    u_.o = obj;                                                     \
    if (obj) ref ? obj->addWeak() : static_cast<void>(obj->addRef()); \
  }

QEL_TYPED_CONSTRUCTOR(QelBuffer, QVT_BUFFER)
QEL_TYPED_CONSTRUCTOR(QelCharBuffer, QVT_CHARBUFFER)
QEL_TYPED_CONSTRUCTOR(QelClass, QVT_CLASS)
QEL_TYPED_CONSTRUCTOR(QelObject, QVT_OBJECT)
QEL_TYPED_CONSTRUCTOR(QelString, QVT_STRING)
QEL_TYPED_CONSTRUCTOR(QelDictionary, QVT_DICTIONARY)
#undef QEL_TYPED_CONSTRUCTOR

QelValue::QelValue(QelVector* v, bool bytecode, bool ref)
    : type_(typedKind(bytecode ? QVT_BYTECODE : QVT_VECTOR, ref)) {
  u_.bits = 0;
  u_.o = v;
  if (v) ref ? v->addWeak() : static_cast<void>(v->addRef());
}

QelValue::QelValue(QelRefObject* obj, QelValueType type) : type_(type) {
  u_.bits = 0;
  u_.o = obj;
  if (obj && untypedCounts(type)) obj->addRef();
  if (obj && qelIsObjectRef(type)) obj->addWeak();
}

void QelValue::assignRef(QelRefObject* obj) {
  QelRefObject* old = u_.o;
  u_.bits = 0;
  u_.o = obj;
  if (obj) {
    if (untypedCounts(type_)) obj->addRef();
    else if (qelIsObjectRef(type_)) obj->addWeak();
  }
  if (old) {
    if (untypedCounts(type_)) old->release();
    else if (qelIsObjectRef(type_)) old->dropWeak();
  }
}

void QelValue::makeReference() {
  if (type_ < QVT_CODE || type_ > QVT_DICTIONARY) return;
  type_ = static_cast<QelValueType>(type_ + QVT_REF_OFFSET);
  if (type_ == QVT_CODEREF || !u_.o) return;
  QelRefObject* obj = u_.o;
  obj->addWeak();
  if (obj->refCnt_ > 0 && --obj->refCnt_ == 0) obj->weak_ |= QelRefObject::kAbandoned;
}

// ---- The end of an object's life ----

namespace {

// Ending an object releases what it holds, which may end further objects. Up to this
// depth that happens at once, in order; deeper ends wait in a queue that the
// outermost end works off, so a long chain of objects cannot exhaust the native stack.
// Depth and queue belong to the thread: the objects of a machine end on the thread
// that runs it, while other machines end theirs on their own threads. The queue exists
// only while an outermost end works it off, so a thread leaves nothing behind. Every
// release to zero reaches them: they use the fast model of thread storage, as the
// heap tally does.
const int kMaxEndDepth = 256;
thread_local int tEndDepth __attribute__((tls_model("initial-exec"))) = 0;
thread_local std::vector<QelRefObject*>* tDeferredEnds __attribute__((tls_model("initial-exec"))) = nullptr;

}  // namespace

void QelRefObject::lastRelease() {
  if (weak_ & (kDying | kDead | kDeferred)) return;  // ending already, dead, or queued
  endWithinDepth();
}

void QelRefObject::destroy() {
  if (weak_ & (kDying | kDead | kDeferred)) return;
  endWithinDepth();
}

void QelRefObject::endWithinDepth() {
  if (tEndDepth >= kMaxEndDepth) {
    if (!tDeferredEnds) tDeferredEnds = new std::vector<QelRefObject*>();
    weak_ |= kDeferred;
    tDeferredEnds->push_back(this);
    return;
  }
  ++tEndDepth;
  end();
  if (tEndDepth == 1 && tDeferredEnds) {
    // Queued ends run one at a time from here, each within the depth again.
    std::vector<QelRefObject*>* queue = tDeferredEnds;
    for (size_t i = 0; i < queue->size(); ++i) {
      QelRefObject* obj = (*queue)[i];
      obj->weak_ &= ~kDeferred;
      if (obj->refCnt_ <= 0) obj->end();
    }
    tDeferredEnds = nullptr;
    delete queue;
  }
  --tEndDepth;
}

void QelRefObject::end() {
  if (weak_ & kIsObject) {
    // The script destructor runs first, while the object still answers as alive.
    weak_ |= kDying;
    static_cast<QelObject*>(this)->runDeletionNotice();
    weak_ &= ~kDying;
    if (refCnt_ > 0) return;  // the destructor kept an owning copy: it lives on
  }
  if ((weak_ & kWeakMask) == 0) {
    weak_ |= kDying;
    delete this;
    return;
  }
  weak_ |= kDead;
  finish();
}

// A dead object keeps its memory for its references but lets go of what it holds.
void QelRefObject::finish() {
  weak_ |= kDying;
  if (weak_ & kIsObject) {
    static_cast<QelObject*>(this)->releaseMembers();
  } else if (weak_ & kIsContainer) {
    if (QelVector* v = dynamic_cast<QelVector*>(this)) v->clear();
    else if (QelDictionary* d = dynamic_cast<QelDictionary*>(this)) d->clear();
  }
  weak_ &= ~kDying;
  // Its last references may have been among what it held (a vector holding itself).
  if ((weak_ & kWeakMask) == 0) {
    weak_ |= kDying;
    delete this;
  }
}

void QelRefObject::lastWeakDropped() {
  if (weak_ & kDying) return;
  if (weak_ & kDead) {
    weak_ |= kDying;
    delete this;
  } else if (weak_ & kAbandoned) {
    // Its count was given up to references, and the last of them is gone.
    lastRelease();
  }
}

void* QelValue::addr() {
  switch (type_) {
    case QVT_INTEGER:
    case QVT_FLOAT:
    case QVT_DOUBLE:
      return &u_;
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      return u_.o ? static_cast<QelBuffer*>(u_.o)->data() : nullptr;
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      return u_.o ? static_cast<QelCharBuffer*>(u_.o)->data() : nullptr;
    case QVT_STRING:
    case QVT_STRINGREF:
      return u_.o ? const_cast<QelChar*>(static_cast<QelString*>(u_.o)->c_str()) : nullptr;
    default:
      return u_.p;
  }
}

#define QEL_OBJECT_CONVERSION(Class, Kind)                                   \
  QelValue::operator Class*() const {                                        \
    return (type_ == Kind || type_ == Kind + QVT_REF_OFFSET) ? static_cast<Class*>(u_.o) : nullptr; \
  }

QEL_OBJECT_CONVERSION(QelClass, QVT_CLASS)
QEL_OBJECT_CONVERSION(QelObject, QVT_OBJECT)
QEL_OBJECT_CONVERSION(QelString, QVT_STRING)
QEL_OBJECT_CONVERSION(QelBuffer, QVT_BUFFER)
QEL_OBJECT_CONVERSION(QelCharBuffer, QVT_CHARBUFFER)
QEL_OBJECT_CONVERSION(QelDictionary, QVT_DICTIONARY)
#undef QEL_OBJECT_CONVERSION

// A procedure is a vector too.
QelValue::operator QelVector*() const {
  switch (type_) {
    case QVT_VECTOR:
    case QVT_VECTORREF:
    case QVT_BYTECODE:
    case QVT_BYTECODEREF:
      return static_cast<QelVector*>(u_.o);
    default:
      return nullptr;
  }
}

QelValue::operator QelDictionaryEntry*() const {
  return type_ == QVT_VAR ? static_cast<QelDictionaryEntry*>(u_.p) : nullptr;
}

float QelValue::toFloat() const {
  switch (type_) {
    case QVT_FLOAT: return u_.f;
    case QVT_INTEGER: return static_cast<float>(u_.l);
    case QVT_DOUBLE: return static_cast<float>(u_.d);
    default: return FLT_MAX;
  }
}

double QelValue::toDouble() const {
  switch (type_) {
    case QVT_DOUBLE: return u_.d;
    case QVT_FLOAT: return u_.f;
    case QVT_INTEGER: return u_.l;
    default: return DBL_MAX;
  }
}

// Truncates toward zero; out-of-range values and NaN wrap like a 64-bit cut would
// rather than invoking undefined behaviour.
int32_t QelValue::truncToLong(double d) {
  if (std::isnan(d)) return 0;
  if (d >= -2147483648.0 && d < 2147483648.0) return static_cast<int32_t>(d);
  if (d >= -9.2e18 && d <= 9.2e18) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(d))));
  }
  return INT32_MIN;  // what the processor answers for an unrepresentable value
}
