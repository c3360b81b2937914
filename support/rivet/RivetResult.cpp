#include "support/rivet/RivetResult.h"

namespace vesp::rivet {

struct RivetResultVoidSuccessMaker {
  static RivetResult<void> make() { return RivetResult<void>(); }
};

const RivetResult<void> RivetResultVoidSuccess = RivetResultVoidSuccessMaker::make();

}  // namespace vesp::rivet
