// Classes and objects.
//
// A QelClass has a name, one base class, a data-member dictionary (instance and
// static, unsorted: declaration order fixes slot order) and a function-member
// dictionary (sorted). An object is a counted vector: slot 0 holds its class, slots 1
// to the data size its instance members, the base class's members first.
#pragma once

#include "qel/dictionary.h"

class QEL_API QelClass : public QelRefObject {
 public:
  explicit QelClass(QelVirtualMachine& vm);
  QelClass(QelVirtualMachine& vm, QelString* name, QelClass* base);
  QelClass(QelVirtualMachine& vm, const QelString& name, QelClass* base);
  ~QelClass() override;

  QelDictionary& dataMembers() { return *data_; }
  QelDictionary& funcMembers() { return *funcs_; }
  const QelDictionary& dataMembers() const { return *data_; }
  const QelDictionary& funcMembers() const { return *funcs_; }
  QelClass* getBaseClass() const { return base_; }
  bool setBaseClass(QelClass* base);
  QelString* getClassName() const { return name_; }
  // The name's text, "" when unnamed.
  const QelChar* nameText() const;
  bool setClassName(QelString* name);
  bool setClassName(const QelString& name);
  bool isSubtypeOf(const QelClass* c) const;
  bool isSubtypeOf(const QelString& name) const;
  QelDictionaryEntry* findMember(const QelString& name, bool inherited) const;
  QelDictionaryEntry* findMember(const QelChar* name, bool inherited) const;
  // A function member of this class or a base, or null.
  QelDictionaryEntry* findFunction(const QelString& name) const { return findFunction(name.c_str()); }
  QelDictionaryEntry* findFunction(const QelChar* name) const;

  bool addDataMember(const QelChar* name);
  bool addStaticDataMember(const QelChar* name);
  bool addStaticDataMember(const QelChar* name, const QelValue& value);
  bool addMethod(const QelChar* name, QelNativeFunction fn);
  bool addStaticMethod(const QelChar* name, QelNativeFunction fn);

  void fixupDataDefs();
  int computeDataSize();
  int getDataSize() const { return dataSize_; }
  int getMemberIndex(const QelString& name) const;
  void setIsNative(bool native) { native_ = native; }
  bool getIsNative() const { return native_; }
  QelVirtualMachine& getVirtualMachine() const { return *vm_; }
  void notifyObjDelete(QelObject* obj);
  // Whether this class or a base has a member "dtor"; remembered while no class table
  // changes (QelDictionary::memberEpoch), since every object's end asks.
  bool hasDestructor() const;

 private:
  // A module file stores the data size its writer computed.
  friend class QelDictionaryIO;
  bool hasOwnMember(const QelString& name) const;
  bool addMember(const QelChar* name, bool function, QelSymbolType type, const QelValue& value);
  void initDictionaries();

  QelString* name_;
  QelClass* base_;
  QelDictionary* data_;
  QelDictionary* funcs_;
  int32_t dataSize_;
  QelVirtualMachine* vm_;
  bool native_;
  mutable bool dtorKnown_ = false;
  mutable bool hasDtor_ = false;
  mutable uint32_t dtorEpoch_ = 0;
};

class QEL_API QelObject : public QelRefObject {
 public:
  explicit QelObject(QelClass* cls);
  QelObject(const QelObject& o);
  ~QelObject() override;

  QelClass* getClass() const;
  QelVector* getMemberData() const { return members_; }
  // Tells the class (and so the machine) once that this object ends.
  void runDeletionNotice();
  // Lets go of the member data (a dead object keeps none).
  void releaseMembers();

 private:
  QelObject& operator=(const QelObject&) = delete;
  QelVector* members_;
  bool noticed_;
};
