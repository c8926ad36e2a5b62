#include "tcpe/engine/TCPE_HandlerDelivery.h"

#include "foundation/Cmn_HostCall.h"

void TCPE_HandlerDelivery::DeliverError(ETCPE_NetworkError error, std::uint32_t address) {
  mPool->Submit(
      address,
      [proc = mOnNetworkError, error, address] {
        Cmn_HostCall::Run(Cmn_HostCall::Kind::networkError, [&] { proc(error, address); });
      },
      TCPE_QueueLoad::Kind::notice);
}
