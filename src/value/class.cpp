// Classes (members, base chain, slot layout) and objects (member slot vectors).
#include "qel/class.h"
#include "qel/vm.h"

void QelClass::initDictionaries() {
  data_ = new QelDictionary(false);
  funcs_ = new QelDictionary(true);
  data_->addRef();
  funcs_->addRef();
  data_->setOwningClass(this);
  funcs_->setOwningClass(this);
}

QelClass::QelClass(QelVirtualMachine& vm)
    : name_(nullptr), base_(nullptr), dataSize_(-1), vm_(&vm), native_(false) {
  initDictionaries();
}

QelClass::QelClass(QelVirtualMachine& vm, QelString* name, QelClass* base)
    : name_(name), base_(base), dataSize_(-1), vm_(&vm), native_(false) {
  if (name_) name_->addRef();
  if (base_) base_->addRef();
  initDictionaries();
}

QelClass::QelClass(QelVirtualMachine& vm, const QelString& name, QelClass* base)
    : name_(nullptr), base_(base), dataSize_(-1), vm_(&vm), native_(false) {
  if (!name.empty()) {
    name_ = new QelString(name);
    name_->addRef();
  }
  if (base_) base_->addRef();
  initDictionaries();
}

QelClass::~QelClass() {
  if (name_) name_->release();
  if (base_) base_->release();
  data_->setOwningClass(nullptr);
  funcs_->setOwningClass(nullptr);
  data_->release();
  funcs_->release();
}

bool QelClass::setBaseClass(QelClass* base) {
  if (base_) return false;
  if (!base) return true;
  // A base chain never loops back: lookups walk it to its end.
  if (base->isSubtypeOf(this)) return false;
  base->addRef();
  base_ = base;
  QelDictionary::noteMemberChange();  // inherited lookups now reach further
  return true;
}

const QelChar* QelClass::nameText() const { return name_ ? name_->c_str() : u""; }

bool QelClass::setClassName(QelString* name) {
  if (name_ || !name) return false;
  name->addRef();
  name_ = name;
  return true;
}

bool QelClass::setClassName(const QelString& name) {
  if (name_ || name.empty()) return false;
  name_ = new QelString(name);
  name_->addRef();
  return true;
}

bool QelClass::isSubtypeOf(const QelClass* c) const {
  for (const QelClass* k = this; k; k = k->base_) {
    if (k == c) return true;
  }
  return false;
}

bool QelClass::isSubtypeOf(const QelString& name) const {
  for (const QelClass* k = this; k; k = k->base_) {
    if (!k->name_) return false;
    if (k->name_->compare(name) == 0) return true;
  }
  return false;
}

QelDictionaryEntry* QelClass::findMember(const QelString& name, bool inherited) const {
  return findMember(name.c_str(), inherited);
}

QelDictionaryEntry* QelClass::findMember(const QelChar* name, bool inherited) const {
  for (const QelClass* k = this; k; k = inherited ? k->base_ : nullptr) {
    if (QelDictionaryEntry* e = k->data_->find(name)) return e;
    if (QelDictionaryEntry* e = k->funcs_->find(name)) return e;
  }
  return nullptr;
}

QelDictionaryEntry* QelClass::findFunction(const QelChar* name) const {
  for (const QelClass* k = this; k; k = k->base_) {
    if (QelDictionaryEntry* e = k->funcs_->find(name)) return e;
  }
  return nullptr;
}

bool QelClass::hasOwnMember(const QelString& name) const {
  return data_->find(name) || funcs_->find(name);
}

bool QelClass::addMember(const QelChar* name, bool function, QelSymbolType type, const QelValue& value) {
  if (!name || !name[0]) return false;
  QelString key(name);
  if (hasOwnMember(key)) return false;
  QelDictionaryEntry& e = (function ? *funcs_ : *data_)[key];
  e.setSymbolType(type);
  e.setValue(value);
  return true;
}

bool QelClass::addDataMember(const QelChar* name) { return addMember(name, false, QST_DATA, QelValue()); }

bool QelClass::addStaticDataMember(const QelChar* name) {
  return addMember(name, false, QST_STATIC_DATA, QelValue());
}

bool QelClass::addStaticDataMember(const QelChar* name, const QelValue& value) {
  return addMember(name, false, QST_STATIC_DATA, value);
}

bool QelClass::addMethod(const QelChar* name, QelNativeFunction fn) {
  return fn && addMember(name, true, QST_METHOD, QelValue(fn));
}

bool QelClass::addStaticMethod(const QelChar* name, QelNativeFunction fn) {
  return fn && addMember(name, true, QST_STATIC_FUNCTION, QelValue(fn));
}

void QelClass::fixupDataDefs() {
  int32_t index = base_ ? base_->computeDataSize() : 0;
  for (QelDictionaryEntry* e = data_->getFirst(); e; e = e->getNext()) {
    if (e->getSymbolType() == QST_DATA) e->setValue(QelValue(++index));
  }
  computeDataSize();
}

int QelClass::computeDataSize() {
  int n = 0;
  for (QelDictionaryEntry* e = data_->getFirst(); e; e = e->getNext()) {
    if (e->getSymbolType() == QST_DATA) ++n;
  }
  if (base_) n += base_->computeDataSize();
  dataSize_ = n;
  return n;
}

int QelClass::getMemberIndex(const QelString& name) const {
  QelDictionaryEntry* e = findMember(name, true);
  if (!e || e->getSymbolType() != QST_DATA) return -1;
  return e->getValue().toLong();
}

void QelClass::notifyObjDelete(QelObject* obj) { vm_->notifyObjDelete(obj); }

bool QelClass::hasDestructor() const {
  uint32_t epoch = QelDictionary::memberEpoch();
  if (!dtorKnown_ || dtorEpoch_ != epoch) {
    hasDtor_ = findMember(u"dtor", true) != nullptr;
    dtorEpoch_ = epoch;
    dtorKnown_ = true;
  }
  return hasDtor_;
}

QelObject::QelObject(QelClass* cls) : members_(nullptr), noticed_(false) {
  setFinishKind(true, false);
  if (!cls) return;
  int size = cls->getDataSize();
  if (size < 0) size = cls->computeDataSize();
  members_ = new QelVector(static_cast<unsigned int>(size) + 1, true);
  members_->addRef();
  (*members_)[0] = QelValue(cls, false);
}

QelObject::QelObject(const QelObject& o) : QelRefObject(), members_(nullptr), noticed_(false) {
  setFinishKind(true, false);
  if (!o.members_) return;
  members_ = new QelVector(*o.members_);
  members_->addRef();
}

QelObject::~QelObject() {
  runDeletionNotice();
  releaseMembers();
}

void QelObject::runDeletionNotice() {
  if (noticed_ || !members_) return;
  noticed_ = true;
  if (QelClass* cls = getClass()) cls->notifyObjDelete(this);
}

void QelObject::releaseMembers() {
  QelVector* members = members_;
  members_ = nullptr;
  if (members) members->release();
}

QelClass* QelObject::getClass() const {
  if (!members_ || members_->size() == 0) return nullptr;
  return (*members_)[0];
}
