// Module files and single-value streams: the writer, the reader, and the resolution of
// what a file names once it has been read.
#include "qel/dictionary_io.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "qel/buffer.h"
#include "platform/files.h"

namespace {

// No compiled class comes near this many instance members; a larger data size in a
// file is malformed, and objects of such a class could not be made sanely.
const int32_t kMaxDataSize = (1 << 20) - 1;
// On a stream of unknown size containers grow as their elements arrive, at most this
// many elements ahead.
const unsigned int kStreamChunk = 4096;
// The width byte that stands for "already written" in place of a text.
const uint8_t kWrittenBefore = 255;
// Every value record starts with its four type bytes.
const unsigned int kMinValueSize = 4;

const QelChar kClassesName[] = u"!C";
const QelChar kSymbolsName[] = u"!S";
const QelChar kDataPrefix[] = u"m!";
const QelChar kFuncPrefix[] = u"f!";
const unsigned int kPrefixLength = 2;  // the length of "m!"
const QelChar kAgain[] = u"$";
const QelChar kSortedFlagError[] = u"error reading dicionary (sorted flag)\n";
const QelChar kClassNotFound[] = u"class %s not found\n";

bool isRefType(QelValueType t) { return t >= QVT_CODEREF; }

QelValueType owningType(QelValueType t) {
  return isRefType(t) ? static_cast<QelValueType>(t - QVT_REF_OFFSET) : t;
}

// The kind of object a type holds: a procedure is a vector too.
QelValueType kindOf(QelValueType t) {
  QelValueType owning = owningType(t);
  return owning == QVT_BYTECODE ? QVT_VECTOR : owning;
}

bool isHeapType(QelValueType t) {
  QelValueType owning = owningType(t);
  return owning >= QVT_BYTECODE && owning <= QVT_DICTIONARY;
}

// A value of the type with no object yet: a placeholder filled after reading.
QelValue placeholder(QelValueType type) { return QelValue(static_cast<QelRefObject*>(nullptr), type); }

}  // namespace

QelValue* QelDictionaryIO::Slot::get() const {
  if (vector) return index < vector->size() ? &(*vector)[index] : nullptr;
  if (entry) return &entry->value();
  return root;
}

QelDictionaryIO::QelDictionaryIO(QelVirtualMachine& vm)
    : classes_(&vm.classes()), symbols_(&vm.symbols()), printer_(&vm.printer()), vm_(&vm) {
  classes_->addRef();
  symbols_->addRef();
}

QelDictionaryIO::~QelDictionaryIO() {
  clearObjectLists();
  releaseRetired();
  classes_->release();
  symbols_->release();
}

// ---- Public operations ----

bool QelDictionaryIO::writeModule(const QelString& path) {
  clearObjectLists();
  fp_ = qel::openFile(path.c_str(), u"wb");
  if (!fp_) {
    (*printer_)(u"opening %s for write failed\n", path.c_str());
    return false;
  }
  bool ok = writeDictionary(vm_->modules(), false, 0) && writeDictionary(*classes_, true, 0) &&
            writeDictionary(*symbols_, true, 0);
  if (fclose(fp_) != 0) ok = false;
  fp_ = nullptr;
  clearObjectLists();
  return ok;
}

bool QelDictionaryIO::readModule(const QelString& path) {
  clearObjectLists();
  FILE* fp = qel::openFile(path.c_str(), u"rb");
  if (!fp) {
    (*printer_)(u"opening %s for read failed\n", path.c_str());
    return false;
  }
  measure(fp);
  // The native modules come first: loading them registers what the rest may name.
  // Their list stays until the end, since values read into it may wait for resolution.
  QelValue moduleList(new QelDictionary(false), false);
  QelDictionary* modules = moduleList;
  bool ok = readDictionary(*modules, 0);
  if (ok && refuseNative_ && modules->getFirst()) {
    (*printer_)(u"native module %s: not permitted\n", modules->getFirst()->getKey()->c_str());
    ok = false;
  }
  for (QelDictionaryEntry* e = modules->getFirst(); ok && e; e = e->getNext()) {
    ok = vm_->loadNativeModule(e->getKey()->c_str());
  }
  ok = ok && readDictionary(*classes_, 0) && readDictionary(*symbols_, 0);
  fclose(fp);
  return finishRead(ok);
}

bool QelDictionaryIO::writeSingleValue(FILE* fp, QelValue& value) {
  clearObjectLists();
  if (!fp) return false;
  fp_ = fp;
  bool ok = writeValue(value, false, 0);
  fp_ = nullptr;
  clearObjectLists();
  return ok;
}

bool QelDictionaryIO::readSingleValue(FILE* fp, QelValue& value) {
  clearObjectLists();
  if (!fp) return false;
  measure(fp);
  Slot root;
  root.root = &value;
  return finishRead(readValue(root, false, 0));
}

// Links what the file named once all of it is in, then lets go of the lists and of
// what the read replaced.
bool QelDictionaryIO::finishRead(bool ok) {
  fp_ = nullptr;
  ok = dissolveVars() && ok;
  ok = dissolveClassNames() && ok;
  ok = dissolveObjRefs() && ok;
  ok = ok && !malformed_;
  clearObjectLists();
  releaseRetired();
  return ok;
}

// ---- Writing ----

bool QelDictionaryIO::writeDictionary(QelDictionary& dict, bool skipNatives, int depth) {
  if (!writeByte(dict.isSorted() ? 1 : 0)) return false;
  for (QelDictionaryEntry* e = dict.getFirst(); e; e = e->getNext()) {
    if (isSkipped(*e, skipNatives)) continue;
    if (!writeDictEntry(*e, depth)) {
      (*printer_)(u"error while writing dictionary entry %s\n", e->getKey() ? e->getKey()->c_str() : u"");
      return false;
    }
  }
  return writeString(nullptr);  // the end marker: an empty key
}

// Native classes are never written; native functions are left out of the machine's
// own registries, where the reading machine has them already.
bool QelDictionaryIO::isSkipped(const QelDictionaryEntry& entry, bool skipNatives) const {
  const QelValue& v = entry.getValue();
  QelClass* cls = v;
  if (cls && cls->getIsNative()) return true;
  return skipNatives && v.getType() == QVT_CODE && entry.getSymbolType() == QST_STATIC_FUNCTION;
}

bool QelDictionaryIO::writeDictEntry(QelDictionaryEntry& entry, int depth) {
  QelString* key = entry.getKey();
  // An empty key would read back as the end marker.
  if (!key || key->empty()) return false;
  return writeString(key->c_str()) && writeInt32(entry.getSymbolType()) &&
         writeValue(entry.getValue(), false, depth + 1);
}

bool QelDictionaryIO::writeValue(const QelValue& value, bool nested, int depth) {
  if (depth > kMaxDepth) return false;
  QelValueType type = value.getType();
  // A reference to an object that has ended reads as null, and is written so.
  if (qelIsObjectRef(type) && value.getRef() && value.getRef()->isDead()) type = QVT_NULL;
  if (!writeInt32(type)) return false;
  switch (type) {
    case QVT_INTEGER:
      return writeInt32(value.toLong());
    case QVT_FLOAT: {
      float f = value.toFloat();
      uint32_t bits;
      memcpy(&bits, &f, sizeof bits);
      return writeInt32(static_cast<int32_t>(bits));
    }
    case QVT_DOUBLE: {
      double d = value.toDouble();
      uint64_t bits;
      memcpy(&bits, &d, sizeof bits);
      return writeInt32(static_cast<int32_t>(bits)) && writeInt32(static_cast<int32_t>(bits >> 32));
    }
    case QVT_FILE:
    case QVT_CODE: {
      QelString* name = findSymbolNameFromFuncPtr(value);
      return writeString(name ? name->c_str() : nullptr);
    }
    case QVT_VAR: {
      QelDictionaryEntry* entry = value;
      QelString dictName = entry ? getDictionaryName(entry->getDictionary()) : QelString();
      QelString* key = entry ? entry->getKey() : nullptr;
      return writeString(dictName.c_str()) && writeString(key ? key->c_str() : nullptr);
    }
    default:
      // Null, a native function reference and unknown types carry nothing more.
      return isHeapType(type) ? writeHeapValue(value, type, nested, depth) : true;
  }
}

bool QelDictionaryIO::writeHeapValue(const QelValue& value, QelValueType type, bool nested, int depth) {
  QelRefObject* obj = value.getRef();
  if (!obj) return false;  // a heap value without its object cannot be written
  QelValueType kind = kindOf(type);
  if (kind == QVT_CLASS) return writeClass(static_cast<QelClass*>(obj), nested, depth);
  int32_t identity;
  bool first = addOLEntry(obj, identity);
  if (!writeInt32(identity)) return false;
  switch (kind) {
    case QVT_VECTOR: {
      QelVector* v = static_cast<QelVector*>(obj);
      if (!first) return writeInt32(-1);
      if (!writeInt32(static_cast<int32_t>(v->size()))) return false;
      for (unsigned int i = 0; i < v->size(); ++i) {
        if (!writeValue((*v)[i], true, depth + 1)) return false;
      }
      return true;
    }
    case QVT_BUFFER: {
      QelBuffer* b = static_cast<QelBuffer*>(obj);
      if (!first) return writeInt32(-1);
      return writeInt32(static_cast<int32_t>(b->size())) && writeBytes(b->data(), b->size());
    }
    case QVT_CHARBUFFER: {
      QelCharBuffer* b = static_cast<QelCharBuffer*>(obj);
      if (!first) return writeInt32(-1);
      std::string bytes;
      bytes.reserve(2 * b->size());
      for (unsigned int i = 0; i < b->size(); ++i) {
        bytes += static_cast<char>((*b)[i] & 0xFF);
        bytes += static_cast<char>((*b)[i] >> 8);
      }
      return writeInt32(static_cast<int32_t>(b->size())) && writeByte(2) && writeBytes(bytes.data(), bytes.size());
    }
    case QVT_OBJECT:
      return first ? writeObject(static_cast<QelObject*>(obj), depth) : writeString(kAgain);
    case QVT_STRING:
      return first ? writeString(static_cast<QelString*>(obj)->c_str()) : writeByte(kWrittenBefore);
    case QVT_DICTIONARY:
      return first ? writeDictionary(*static_cast<QelDictionary*>(obj), false, depth) : writeByte(kWrittenBefore);
    default:
      return false;
  }
}

// A class is written whole once, at top level; elsewhere, and inside another class's
// record, it is written by name and found by that name when read. (A class named in
// another class's members may have its own record later in the class dictionary.)
bool QelDictionaryIO::writeClass(QelClass* cls, bool nested, int depth) {
  if (!writeString(cls->nameText())) return false;
  int32_t identity;
  if (nested || classRecords_ > 0 || !addOLEntry(cls, identity)) return writeString(kAgain);
  QelClass* base = cls->getBaseClass();
  if (!writeString(base ? base->nameText() : nullptr)) return false;
  ++classRecords_;
  bool ok = writeDictionary(cls->dataMembers(), false, depth) && writeDictionary(cls->funcMembers(), false, depth);
  --classRecords_;
  return ok && writeInt32(cls->getDataSize());
}

// The slots follow the class's data size, which is what the reader makes room for.
bool QelDictionaryIO::writeObject(QelObject* obj, int depth) {
  QelClass* cls = obj->getClass();
  QelVector* members = obj->getMemberData();
  // An object is found again through its class's name; without one it cannot be read.
  if (!cls || !members || !cls->nameText()[0]) return false;
  if (!writeString(cls->nameText())) return false;
  unsigned int slots = cls->getDataSize() >= 0 ? static_cast<unsigned int>(cls->getDataSize()) : members->size() - 1;
  QelValue none;
  for (unsigned int i = 1; i <= slots; ++i) {
    if (!writeValue(i < members->size() ? (*members)[i] : none, true, depth + 1)) return false;
  }
  return true;
}

bool QelDictionaryIO::writeString(const QelChar* text) {
  unsigned int n = qelStrLen(text);
  std::string bytes;
  bytes.reserve(1 + 2 * (n + 1));
  bytes += static_cast<char>(2);
  for (unsigned int i = 0; i <= n; ++i) {
    QelChar c = i < n ? text[i] : 0;
    bytes += static_cast<char>(c & 0xFF);
    bytes += static_cast<char>(c >> 8);
  }
  return writeBytes(bytes.data(), bytes.size());
}

bool QelDictionaryIO::writeBytes(const void* bytes, size_t n) { return n == 0 || fwrite(bytes, 1, n, fp_) == n; }

bool QelDictionaryIO::writeInt32(int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
  uint8_t bytes[4] = {static_cast<uint8_t>(u), static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u >> 16),
                      static_cast<uint8_t>(u >> 24)};
  return writeBytes(bytes, sizeof bytes);
}

bool QelDictionaryIO::addOLEntry(const void* object, int32_t& identity) {
  auto placed = written_.emplace(object, nextIdentity_ + 1);
  if (placed.second) ++nextIdentity_;
  identity = placed.first->second;
  return placed.second;
}

// ---- Reading ----

bool QelDictionaryIO::readDictionary(QelDictionary& dict, int depth) {
  uint8_t flag;
  if (!readByte(flag)) {
    (*printer_)(kSortedFlagError);
    return false;
  }
  // A dictionary that already holds entries keeps the order they were placed in.
  if (!dict.getFirst()) dict.setSorted(flag == 1);
  return readDictEntries(dict, depth);
}

// The entries up to the end marker. One that cannot be read ends the dictionary
// quietly, so a file cut short keeps what came before; malformed data does not.
bool QelDictionaryIO::readDictEntries(QelDictionary& dict, int depth) {
  for (;;) {
    bool end = false;
    if (!readDictEntry(dict, end, depth)) return !malformed_;
    if (end) return true;
  }
}

bool QelDictionaryIO::readDictEntry(QelDictionary& dict, bool& end, int depth) {
  QelString key;
  bool none;
  if (!readString(key, none)) return false;
  if (none) return malformed();
  if (key.empty()) {
    end = true;
    return true;
  }
  int32_t symbolType;
  if (!readInt32(symbolType)) return false;
  if (symbolType < QST_UNDEFINED || symbolType > QST_STATIC_FUNCTION) return malformed();
  QelDictionaryEntry& entry = dict[key];
  entry.setSymbolType(static_cast<QelSymbolType>(symbolType));
  if (&dict == classes_ && static_cast<QelClass*>(entry.getValue())) vm_->keepReplacedClass(entry.getValue());
  Slot slot;
  slot.entry = &entry;
  return readValue(slot, false, depth + 1);
}

bool QelDictionaryIO::readValue(const Slot& at, bool nested, int depth) {
  if (depth > kMaxDepth) return malformed();
  int32_t number;
  if (!readInt32(number)) return false;
  if (number < 0 || number >= QVT_TYPE_COUNT) return malformed();
  QelValueType type = static_cast<QelValueType>(number);
  // A file or native function is looked up before the slot gives up its value: the
  // slot may be the very entry it names ("stdout" holds the stream named "stdout").
  if (type == QVT_FILE || type == QVT_CODE) return readNamedValue(at, type);
  QelValue* dest = at.get();
  if (!dest) return malformed();
  retire(*dest);
  switch (type) {
    case QVT_INTEGER: {
      int32_t l;
      if (!readInt32(l)) return false;
      dest->setLong(l);
      return true;
    }
    case QVT_FLOAT: {
      int32_t bits;
      if (!readInt32(bits)) return false;
      float f;
      memcpy(&f, &bits, sizeof f);
      dest->setFloat(f);
      return true;
    }
    case QVT_DOUBLE: {
      int32_t low, high;
      if (!readInt32(low) || !readInt32(high)) return false;
      uint64_t bits = static_cast<uint32_t>(low) | (static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32);
      double d;
      memcpy(&d, &bits, sizeof d);
      dest->setDouble(d);
      return true;
    }
    case QVT_BYTECODE:
    case QVT_VECTOR:
    case QVT_BYTECODEREF:
    case QVT_VECTORREF:
      return readVector(at, type, depth);
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      return readBuffer(at, type);
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      return readCharBuffer(at, type);
    case QVT_CLASS:
    case QVT_CLASSREF:
      return readClass(at, type, nested, depth);
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      return readObject(at, type, depth);
    case QVT_STRING:
    case QVT_STRINGREF:
      return readStringValue(at, type);
    case QVT_DICTIONARY:
    case QVT_DICTIONARYREF:
      return readDictionaryValue(at, type, depth);
    case QVT_VAR:
      return readVarListEntry(at);
    default:
      // Null, and a native function reference, which carries nothing: a null value.
      return true;
  }
}

bool QelDictionaryIO::readNamedValue(const Slot& at, QelValueType type) {
  QelString name;
  bool none;
  if (!readString(name, none)) return false;
  if (none) return malformed();
  QelValue found = type == QVT_FILE ? QelValue(static_cast<void*>(nullptr))
                                    : QelValue(static_cast<QelNativeFunction>(nullptr));
  if (!name.empty()) {
    QelDictionaryEntry* entry = symbols_->find(name);
    if (!entry) return malformed();
    found = entry->getValue();
  }
  QelValue* dest = at.get();
  if (!dest) return malformed();
  retire(*dest);
  *dest = std::move(found);
  return true;
}

bool QelDictionaryIO::readVector(const Slot& at, QelValueType type, int depth) {
  int32_t identity, count;
  if (!readInt32(identity) || !readInt32(count)) return false;
  if (count == -1) return addORefEntry(at, type, identity);
  if (!fits(count, kMinValueSize)) return malformed();
  unsigned int n = static_cast<unsigned int>(count);
  QelVector* vec = sizeKnown_ ? new QelVector(n, true) : new QelVector(std::min(n, kStreamChunk), false);
  bool bytecode = owningType(type) == QVT_BYTECODE;
  addOLEntry(identity, place(at, QelValue(vec, bytecode, isRefType(type))));
  Slot element;
  element.vector = vec;
  for (unsigned int i = 0; i < n; ++i) {
    if (i >= vec->size()) vec->push_null();
    element.index = i;
    if (!readValue(element, true, depth + 1)) return false;
  }
  return true;
}

bool QelDictionaryIO::readBuffer(const Slot& at, QelValueType type) {
  int32_t identity, count;
  if (!readInt32(identity) || !readInt32(count)) return false;
  if (count == -1) return addORefEntry(at, type, identity);
  if (!fits(count, 1)) return malformed();
  unsigned int n = static_cast<unsigned int>(count);
  QelBuffer* buf = new QelBuffer(sizeKnown_ ? n : std::min(n, kStreamChunk));
  addOLEntry(identity, place(at, QelValue(buf, isRefType(type))));
  for (unsigned int done = 0; done < n;) {
    unsigned int part = sizeKnown_ ? n - done : std::min(n - done, kStreamChunk);
    if (buf->capacity() < done + part) buf->setCapacity(done + part);
    if (!readBytes(buf->data() + done, part)) return false;
    done += part;
    buf->setSize(done);
  }
  return true;
}

bool QelDictionaryIO::readCharBuffer(const Slot& at, QelValueType type) {
  int32_t identity, count;
  if (!readInt32(identity) || !readInt32(count)) return false;
  if (count == -1) return addORefEntry(at, type, identity);
  uint8_t width;
  if (!readByte(width)) return false;
  if (width == 0 || width == kWrittenBefore || !fits(count, width)) return malformed();
  unsigned int n = static_cast<unsigned int>(count);
  QelCharBuffer* buf = new QelCharBuffer(sizeKnown_ ? n : std::min(n, kStreamChunk));
  addOLEntry(identity, place(at, QelValue(buf, isRefType(type))));
  for (unsigned int i = 0; i < n; ++i) {
    QelChar c;
    if (!readChar(width, c)) return false;
    buf->push_back(c);
  }
  return true;
}

// A class record at top level builds a new class; a class named anywhere else is
// found by its name once the whole file is read, since its own record may come later
// (a method of A that makes a B names B before B's record).
bool QelDictionaryIO::readClass(const Slot& at, QelValueType type, bool nested, int depth) {
  QelString name, second;
  bool noName, noSecond;
  if (!readString(name, noName) || !readString(second, noSecond)) return false;
  if (noName || noSecond) return malformed();
  if (nested || second.equals(kAgain)) {
    if (!second.equals(kAgain)) return malformed();  // only top level carries a record
    place(at, placeholder(type));
    queue(classNames_, at, type).name = name;
    return true;
  }
  QelClass* base = second.empty() ? nullptr : findClass(second);
  QelClass* cls = new QelClass(*vm_, name, base);
  place(at, QelValue(cls, isRefType(type)));
  objects_.push_back({QelValue(cls, false), QVT_CLASS});  // kept meanwhile, not listed
  if (!readDictionary(cls->dataMembers(), depth) || !readDictionary(cls->funcMembers(), depth)) return false;
  int32_t size;
  if (!readInt32(size)) return false;
  if (size < -1 || size > kMaxDataSize) return malformed();
  cls->dataSize_ = size;
  return true;
}

bool QelDictionaryIO::readObject(const Slot& at, QelValueType type, int depth) {
  int32_t identity;
  if (!readInt32(identity)) return false;
  QelString name;
  bool none;
  if (!readString(name, none)) return false;
  if (none) return malformed();
  if (name.empty() || name[0] == u'$') return addORefEntry(at, type, identity);
  QelClass* cls = findClass(name);
  if (!cls) {
    (*printer_)(kClassNotFound, name.c_str());
    return malformed();
  }
  // An object is made only of a class whose layout is known, with the file holding
  // all of its member slots.
  int32_t size = cls->getDataSize();
  if (size < 0 || !fits(size, kMinValueSize)) return malformed();
  QelObject* obj = new QelObject(cls);
  addOLEntry(identity, place(at, QelValue(obj, isRefType(type))));
  Slot slot;
  slot.vector = obj->getMemberData();
  for (unsigned int i = 1; slot.vector && i < slot.vector->size(); ++i) {
    slot.index = i;
    if (!readValue(slot, true, depth + 1)) return false;
  }
  return true;
}

bool QelDictionaryIO::readStringValue(const Slot& at, QelValueType type) {
  int32_t identity;
  if (!readInt32(identity)) return false;
  QelString text;
  bool none;
  if (!readString(text, none)) return false;
  if (none) return addORefEntry(at, type, identity);
  addOLEntry(identity, place(at, QelValue(new QelString(std::move(text)), isRefType(type))));
  return true;
}

bool QelDictionaryIO::readDictionaryValue(const Slot& at, QelValueType type, int depth) {
  int32_t identity;
  if (!readInt32(identity)) return false;
  uint8_t flag;
  if (!readByte(flag)) {
    (*printer_)(kSortedFlagError);
    return false;
  }
  if (flag == kWrittenBefore) return addORefEntry(at, type, identity);
  QelDictionary* dict = new QelDictionary(flag == 1);
  addOLEntry(identity, place(at, QelValue(dict, isRefType(type))));
  return readDictEntries(*dict, depth);
}

// A variable waits for the end of the file, where its dictionary and entry are found.
bool QelDictionaryIO::readVarListEntry(const Slot& at) {
  QelString dictName, key;
  bool noDict, noKey;
  if (!readString(dictName, noDict) || !readString(key, noKey)) return false;
  if (noDict || noKey) return true;
  Pending& p = queue(variables_, at, QVT_VAR);
  p.dictionary = dictName;
  p.name = key;
  return true;
}

bool QelDictionaryIO::readString(QelString& text, bool& none) {
  none = false;
  uint8_t width;
  if (!readByte(width)) return false;
  if (width == kWrittenBefore) {
    none = true;
    return true;
  }
  if (width == 0) return malformed();
  std::u16string chars;
  for (;;) {
    QelChar c;
    if (!readChar(width, c)) return false;
    if (c == 0) break;
    chars += c;
  }
  text = QelString(chars.data(), static_cast<unsigned int>(chars.size()));
  return true;
}

// One character of the given width, little-endian; the low 16 bits are kept.
bool QelDictionaryIO::readChar(unsigned int width, QelChar& c) {
  uint8_t bytes[256];
  if (!readBytes(bytes, width)) return false;
  c = static_cast<QelChar>(width == 1 ? bytes[0] : bytes[0] | (bytes[1] << 8));
  return true;
}

bool QelDictionaryIO::readBytes(void* bytes, size_t n) {
  size_t got = n ? fread(bytes, 1, n, fp_) : 0;
  pos_ += got;
  return got == n;
}

bool QelDictionaryIO::readByte(uint8_t& b) {
  int c = getc(fp_);
  if (c == EOF) return false;
  ++pos_;
  b = static_cast<uint8_t>(c);
  return true;
}

bool QelDictionaryIO::readInt32(int32_t& v) {
  uint8_t b[4];
  if (!readBytes(b, sizeof b)) return false;
  v = static_cast<int32_t>(static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                           (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24));
  return true;
}

bool QelDictionaryIO::fits(int32_t count, unsigned int unitSize) const {
  if (count < 0) return false;
  if (!sizeKnown_) return true;
  uint64_t left = pos_ < limit_ ? limit_ - pos_ : 0;
  return static_cast<uint64_t>(count) * unitSize <= left;
}

bool QelDictionaryIO::malformed() {
  malformed_ = true;
  return false;
}

// What a slot held is kept until the read ends: releasing it now could run a script
// destructor in the middle of the read, or free a container still being filled.
void QelDictionaryIO::retire(QelValue& value) {
  if (value.isPlain()) {
    value.dispose();
  } else {
    retired_.push_back(std::move(value));
  }
}

QelValue& QelDictionaryIO::place(const Slot& at, QelValue&& value) {
  QelValue& dest = *at.get();
  dest = std::move(value);
  return dest;
}

// Every object made is kept until the operation ends; the first one read under an
// identity is the one back-references find.
void QelDictionaryIO::addOLEntry(int32_t identity, const QelValue& value) {
  QelValueType type = value.getType();
  objects_.push_back({QelValue(value.getRef(), owningType(type)), kindOf(type)});
  identities_.emplace(identity, objects_.size() - 1);
}

bool QelDictionaryIO::addORefEntry(const Slot& at, QelValueType type, int32_t identity) {
  place(at, placeholder(type));
  queue(objectRefs_, at, type).identity = identity;
  return true;
}

QelDictionaryIO::Pending& QelDictionaryIO::queue(std::vector<Pending>& list, const Slot& at, QelValueType type) {
  list.emplace_back();
  Pending& p = list.back();
  p.at = at;
  p.type = type;
  if (at.vector) {
    p.container = QelValue(at.vector);
  } else if (at.entry && at.entry->getDictionary()) {
    p.container = QelValue(at.entry->getDictionary());
  }
  return p;
}

// Reads from the current position; for a regular file the bytes it still holds bound
// every count that follows.
void QelDictionaryIO::measure(FILE* fp) {
  fp_ = fp;
  pos_ = 0;
  sizeKnown_ = false;
  struct stat st;
  long at = ftell(fp);
  if (at >= 0 && fstat(qel::streamDescriptor(fp), &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= at) {
    sizeKnown_ = true;
    limit_ = static_cast<uint64_t>(st.st_size - at);
  }
}

// ---- Resolution ----

bool QelDictionaryIO::dissolveVars() {
  for (Pending& p : variables_) {
    QelDictionary* dict = findDictionaryByName(p.dictionary);
    QelDictionaryEntry* entry = dict ? dict->find(p.name) : nullptr;
    QelValue* target = p.at.get();
    if (entry && target && target->isNull()) *target = QelValue(entry);
  }
  variables_.clear();
  return true;
}

bool QelDictionaryIO::dissolveClassNames() {
  bool ok = true;
  for (Pending& p : classNames_) {
    QelClass* cls = findClass(p.name);
    if (!cls) {
      (*printer_)(kClassNotFound, p.name.c_str());
      ok = false;
      continue;
    }
    QelValue* target = p.at.get();
    if (target && target->getType() == p.type && !target->getRef()) target->assignRef(cls);
  }
  classNames_.clear();
  return ok;
}

// Each back-reference gets the object first read under its identity, through
// assignRef: the placeholder keeps its type, and an owning one gains its count.
bool QelDictionaryIO::dissolveObjRefs() {
  bool ok = true;
  for (Pending& p : objectRefs_) {
    auto found = identities_.find(p.identity);
    // A reference must name an object read before it, of its own kind.
    if (found == identities_.end() || objects_[found->second].kind != kindOf(p.type)) {
      ok = false;
      continue;
    }
    QelValue* target = p.at.get();
    if (target && target->getType() == p.type && !target->getRef()) {
      target->assignRef(objects_[found->second].value.getRef());
    }
  }
  objectRefs_.clear();
  return ok;
}

void QelDictionaryIO::clearObjectLists() {
  written_.clear();
  nextIdentity_ = 0;
  identities_.clear();
  objectRefs_.clear();
  variables_.clear();
  classNames_.clear();
  classRecords_ = 0;
  malformed_ = false;
  // Released last, and from a list of its own: an object's destructor may run.
  std::vector<Listed> objects;
  objects.swap(objects_);
}

void QelDictionaryIO::releaseRetired() {
  std::vector<QelValue> retired;
  retired.swap(retired_);
}

// ---- Names ----

QelString* QelDictionaryIO::findSymbolNameFromFuncPtr(const QelValue& value) const {
  for (QelDictionaryEntry* e = symbols_->getFirst(); e; e = e->getNext()) {
    const QelValue& v = e->getValue();
    if (v.getType() == value.getType() && v.ptr() == value.ptr()) return e->getKey();
  }
  return nullptr;
}

QelString QelDictionaryIO::getDictionaryName(QelDictionary* dict) const {
  if (!dict) return QelString();
  if (dict == classes_) return QelString(kClassesName);
  if (dict == symbols_) return QelString(kSymbolsName);
  QelClass* owner = dict->getOwningClass();
  if (!owner) return QelString();
  QelString name(dict == &owner->dataMembers() ? kDataPrefix : kFuncPrefix);
  name += owner->nameText();
  return name;
}

QelDictionary* QelDictionaryIO::findDictionaryByName(const QelString& name) const {
  if (name.equals(kClassesName)) return classes_;
  if (name.equals(kSymbolsName)) return symbols_;
  QelString prefix = name.substr(0, kPrefixLength);
  bool data = prefix.equals(kDataPrefix);
  if (!data && !prefix.equals(kFuncPrefix)) return nullptr;
  QelClass* cls = findClass(name.substr(kPrefixLength, -1));
  if (!cls) return nullptr;
  return data ? &cls->dataMembers() : &cls->funcMembers();
}

QelClass* QelDictionaryIO::findClass(const QelString& name) const {
  QelDictionaryEntry* e = classes_->find(name);
  return e ? static_cast<QelClass*>(e->getValue()) : nullptr;
}
