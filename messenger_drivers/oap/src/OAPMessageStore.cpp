#include "OAPMessageStore.h"

OAPMessageStore::~OAPMessageStore() = default;
