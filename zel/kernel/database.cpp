#include "database.h"

#include "lang/compiler.h"
#include "methods.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "session/changes.h"
#include "session/session.h"
#include "vm/interpreter.h"
#include "vm/primitives.h"

namespace zel {

namespace {

bool open = false;

}  // namespace

void openDatabase() {
  if (open) return;
  addRootVisitor(markSessions);
  addRootVisitor(markChanges);
  addRootVisitor(markRunning);
  addWeakVisitor(sweepSymbols);
  setProcessVisitor(markProcess);
  setCodeVisitor(markCode);
  bootstrapClasses();
  installPrimitives();
  for (const KernelMethod& method : kernelMethods()) {
    compileMethod(method.owner, method.source, method.classSide);
  }
  open = true;
}

void closeDatabase() {
  clearSessions();
  clearChanges();
  clearSymbols();
  clearMemory();
  open = false;
}

}  // namespace zel
