#include "QmioSocketEventHandler.h"

QmioSocketEventHandler::~QmioSocketEventHandler() = default;
