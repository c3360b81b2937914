// Compiled with -H against the installed headers: the vdir platform's public header must not
// bring in any libical header.
#include "platforms/vdir/VdirPlatform.h"

int main() {
  vesp::vdir::VdirPlatformOptions options;
  options.store.root = "/nonexistent";
  options.store.watch = false;
  return options.store.root.empty() ? 1 : 0;
}
