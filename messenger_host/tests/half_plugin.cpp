// A plug-in that forgot its release entry point.

extern "C" __attribute__((visibility("default"))) void* GetDriverInstance() {
  return nullptr;
}
