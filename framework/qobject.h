// Base of the framework's classes: an object with a name whose first virtual operation answers
// the class's own name ("QFont", "QFile", "QBitMap"). The name is an owned copy.
#pragma once

#include "framework/qstring.h"

class QObject {
 public:
  explicit QObject(const char* name = nullptr) { name_ = name; }
  virtual const char* ClassName() const { return "QObject"; }
  virtual ~QObject() = default;
  QObject(const QObject&) = delete;
  QObject& operator=(const QObject&) = delete;

  const char* GetName() const { return name_.cstr(); }
  void SetName(const char* name) { name_ = name; }

 protected:
  qstring name_;
};
