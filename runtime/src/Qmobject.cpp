#include "Qmobject.h"

Qmobject::~Qmobject() = default;
