#include "core/object.h"

CString CObject::getName() const { return CString(name.c_str()); }

// assign rather than move, so that a moved-from argument still leaves a name with a block.
void CObject::setName(CString newName) { name.assign(newName); }
