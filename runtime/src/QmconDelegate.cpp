#include "QmconDelegate.h"

QmconDelegate::~QmconDelegate() = default;

bool QmconDelegate::SetUserData(void* data) {
  const bool wasEmpty = (m_userData == nullptr);
  m_userData = data;
  return wasEmpty;
}
