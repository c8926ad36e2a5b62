#include "tcpe/TCPE_AdaptorChoice.h"

#include <algorithm>
#include <iterator>

namespace {

bool Qualifies(const Sys_Adaptor& adaptor) { return adaptor.isUp && adaptor.canBroadcast && !adaptor.isLoopback; }

std::string TextOf(const Sys_Adaptor& adaptor) {
  return Sys_Socket::DecodeIPAddress(adaptor.address) + " (" + adaptor.name + (adaptor.isUp ? ")" : ", down)");
}

std::string ListOf(const std::vector<Sys_Adaptor>& adaptors) {
  std::string list;
  for (const Sys_Adaptor& adaptor : adaptors) {
    list += (list.empty() ? "" : ", ") + TextOf(adaptor);
  }
  return list.empty() ? "none" : list;
}

TCPE_AdaptorChoice Chosen(const Sys_Adaptor& adaptor, std::uint32_t address) {
  return {.status = eTCPE_Status_Success,
          .name = adaptor.name,
          .address = address,
          .broadcast = adaptor.broadcast,
          .report = {}};
}

TCPE_AdaptorChoice Find(std::uint32_t address, const std::vector<Sys_Adaptor>& adaptors) {
  const auto found = std::find_if(adaptors.begin(), adaptors.end(), [address](const Sys_Adaptor& adaptor) {
    return adaptor.isUp && adaptor.Has(address);
  });
  if (found != adaptors.end()) {
    return Chosen(*found, address);
  }
  return {.status = eTCPE_Status_AddressNotLocal,
          .report = "no adaptor that is up has the address " + Sys_Socket::DecodeIPAddress(address) +
                    "; the addresses of this machine: " + ListOf(adaptors)};
}

} // namespace

TCPE_AdaptorChoice TCPE_AdaptorChoice::Make(std::uint32_t preferred, const std::vector<Sys_Adaptor>& adaptors) {
  if (preferred != 0) {
    return Find(preferred, adaptors);
  }
  std::vector<Sys_Adaptor> candidates;
  std::copy_if(adaptors.begin(), adaptors.end(), std::back_inserter(candidates), Qualifies);
  if (candidates.empty()) {
    const auto loopback = std::find_if(adaptors.begin(), adaptors.end(),
                                       [](const Sys_Adaptor& adaptor) { return adaptor.isUp && adaptor.isLoopback; });
    if (loopback != adaptors.end()) {
      return Chosen(*loopback, loopback->address);
    }
    return {.status = eTCPE_Status_NoAdaptor,
            .report = "no network adaptor is up; the addresses of this machine: " + ListOf(adaptors)};
  }
  TCPE_AdaptorChoice choice = Chosen(candidates.front(), candidates.front().address);
  if (candidates.size() > 1) {
    choice.report = "several adaptors could be used: " + TextOf(candidates.front()) + " was chosen before " +
                    ListOf({candidates.begin() + 1, candidates.end()});
  }
  return choice;
}

TCPE_AdaptorChoice TCPE_AdaptorChoice::Follow(const TCPE_AdaptorChoice& inUse, std::uint32_t preferred,
                                              const std::vector<Sys_Adaptor>& adaptors) {
  if (preferred == 0) {
    const auto kept = std::find_if(adaptors.begin(), adaptors.end(), [&inUse](const Sys_Adaptor& adaptor) {
      return Qualifies(adaptor) && adaptor.address == inUse.address;
    });
    if (kept != adaptors.end()) {
      return Chosen(*kept, kept->address);
    }
  }
  return Make(preferred, adaptors);
}
