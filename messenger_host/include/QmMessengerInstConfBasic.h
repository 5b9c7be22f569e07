#ifndef QM_HOST_QMMESSENGERINSTCONFBASIC_H
#define QM_HOST_QMMESSENGERINSTCONFBASIC_H

// The host's configuration of one driver instance.
struct QmMessengerInstConfBasic {
  char InstanceName[64] = {0};
  char ListenerPort[16] = {0};      // decimal text
  char ListenerAddress[256] = {0};  // local address the inbound listener binds to
};

#endif
