// Module files and single-value streams.
//
// QelDictionaryIO writes a machine's compiled state to a module file and reads it back:
// three dictionary records in a row (the native modules, the classes, the symbols),
// each a sorted flag, entries of key, symbol type and value, and an empty key as end
// marker. The same value encoding carries single values over any stream. Every heap
// object is written once; a later occurrence is a back-reference to its identity, a
// 32-bit number counted per file (or per single value), so shared and cyclic graphs
// come back as they were. Integers are little-endian; texts are a width byte, UTF-16LE
// units and a 0 unit.
//
// Reading never trusts the file. Counts are checked against what the file can still
// hold, nesting is limited, and nothing the file names is linked while it is read:
// back-references, variables and class names wait until the whole file is in, and each
// is then checked against the placeholder it fills. Values the read replaces are kept
// until it ends, so no script destructor runs in the middle of it. A file cut short
// keeps what was read before the cut (a dictionary ends quietly where its entries do);
// malformed data makes the read answer false.
#pragma once

#include <cstdio>
#include <unordered_map>
#include <vector>

#include "qel/vm.h"

class QEL_API QelDictionaryIO {
 public:
  explicit QelDictionaryIO(QelVirtualMachine& vm);
  ~QelDictionaryIO();
  QelDictionaryIO(const QelDictionaryIO&) = delete;
  QelDictionaryIO& operator=(const QelDictionaryIO&) = delete;

  // Writes the machine's modules, classes and symbols (native classes and native
  // functions left out) to the file; false when it cannot be written.
  bool writeModule(const QelString& path);
  // Reads a module file into the machine: loads the native modules it lists, then
  // fills the classes and the symbols. False when the file cannot be opened, is
  // malformed, or names what cannot be found; what was read before stays.
  bool readModule(const QelString& path);
  // Makes readModule fail, loading nothing, for a module file that names native
  // libraries: a script reading it may not load native code (QEL_CAP_NATIVE).
  void refuseNativeModules() { refuseNative_ = true; }
  // One value to or from an open stream; false for a null stream or a failed transfer.
  bool writeSingleValue(FILE* fp, QelValue& value);
  bool readSingleValue(FILE* fp, QelValue& value);

  // The deepest nesting of values that is written or read.
  static constexpr int kMaxDepth = 1000;

 private:
  // Where a value being read lives, so that it can be found again once the whole file
  // is read: an element of a vector, the value of a dictionary entry, or the caller's
  // value.
  struct Slot {
    QelVector* vector = nullptr;
    unsigned int index = 0;
    QelDictionaryEntry* entry = nullptr;
    QelValue* root = nullptr;
    QelValue* get() const;
  };
  // A queued slot, holding a count on the container it lies in meanwhile.
  struct Pending {
    Slot at;
    QelValue container;
    QelValueType type = QVT_NULL;
    int32_t identity = 0;
    QelString name;  // the class name, or a variable's key
    QelString dictionary;  // a variable's dictionary name
  };
  // An object read under an identity, with its type's kind for checking references.
  struct Listed {
    QelValue value;
    QelValueType kind;
  };

  // Writing.
  bool writeDictionary(QelDictionary& dict, bool skipNatives, int depth);
  bool writeDictEntry(QelDictionaryEntry& entry, int depth);
  bool writeValue(const QelValue& value, bool nested, int depth);
  bool writeHeapValue(const QelValue& value, QelValueType type, bool nested, int depth);
  bool writeClass(QelClass* cls, bool nested, int depth);
  bool writeObject(QelObject* obj, int depth);
  bool writeString(const QelChar* text);
  bool writeBytes(const void* bytes, size_t n);
  bool writeByte(uint8_t b) { return writeBytes(&b, 1); }
  bool writeInt32(int32_t v);
  // Answers the identity of an object and whether this is its first occurrence.
  bool addOLEntry(const void* object, int32_t& identity);
  bool isSkipped(const QelDictionaryEntry& entry, bool skipNatives) const;

  // Reading.
  bool readDictionary(QelDictionary& dict, int depth);
  bool readDictEntries(QelDictionary& dict, int depth);
  bool readDictEntry(QelDictionary& dict, bool& end, int depth);
  bool readValue(const Slot& at, bool nested, int depth);
  bool readNamedValue(const Slot& at, QelValueType type);
  bool readVector(const Slot& at, QelValueType type, int depth);
  bool readBuffer(const Slot& at, QelValueType type);
  bool readCharBuffer(const Slot& at, QelValueType type);
  bool readClass(const Slot& at, QelValueType type, bool nested, int depth);
  bool readObject(const Slot& at, QelValueType type, int depth);
  bool readStringValue(const Slot& at, QelValueType type);
  bool readDictionaryValue(const Slot& at, QelValueType type, int depth);
  bool readVarListEntry(const Slot& at);
  // A text record; `none` when its width byte says "already written".
  bool readString(QelString& text, bool& none);
  bool readBytes(void* bytes, size_t n);
  bool readByte(uint8_t& b);
  bool readInt32(int32_t& v);
  bool readChar(unsigned int width, QelChar& c);
  // Whether `count` units of `unitSize` bytes can still follow in the file.
  bool fits(int32_t count, unsigned int unitSize) const;
  // Marks the file malformed; answers false.
  bool malformed();
  // Gives up what a slot held: kept until the read ends.
  void retire(QelValue& value);
  QelValue& place(const Slot& at, QelValue&& value);
  void addOLEntry(int32_t identity, const QelValue& value);
  bool addORefEntry(const Slot& at, QelValueType type, int32_t identity);
  // Queues a slot for resolution after reading; the caller fills in what it waits for.
  Pending& queue(std::vector<Pending>& list, const Slot& at, QelValueType type);
  void measure(FILE* fp);

  // Resolution after reading, and the bookkeeping of one operation.
  bool finishRead(bool ok);
  bool dissolveVars();
  bool dissolveClassNames();
  bool dissolveObjRefs();
  void clearObjectLists();
  void releaseRetired();

  // Names of symbols and dictionaries.
  QelString* findSymbolNameFromFuncPtr(const QelValue& value) const;
  QelString getDictionaryName(QelDictionary* dict) const;
  QelDictionary* findDictionaryByName(const QelString& name) const;
  QelClass* findClass(const QelString& name) const;

  QelDictionary* classes_;
  QelDictionary* symbols_;
  IQelPrinter* printer_;
  QelVirtualMachine* vm_;
  bool refuseNative_ = false;

  FILE* fp_ = nullptr;
  // Bytes consumed, and (when the stream's size is known) how many it held.
  uint64_t pos_ = 0;
  uint64_t limit_ = 0;
  bool sizeKnown_ = false;
  bool malformed_ = false;
  // While a class record is written, class values inside it are written by name.
  int classRecords_ = 0;

  std::unordered_map<const void*, int32_t> written_;
  int32_t nextIdentity_ = 0;
  std::unordered_map<int32_t, size_t> identities_;
  std::vector<Listed> objects_;
  std::vector<Pending> objectRefs_;
  std::vector<Pending> variables_;
  std::vector<Pending> classNames_;
  std::vector<QelValue> retired_;
};
