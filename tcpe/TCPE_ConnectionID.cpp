#include <trel/Cmn_NumberToText.h>
#include <trel/Sys_Socket.h>
#include <trel/TCPE_ConnectionID.h>

#include <tuple>

bool TCPE_ConnectionID::IsValid() const { return mAddress != TCPE_ConnectionID().mAddress && mPort != 0; }

bool TCPE_ConnectionID::operator==(const TCPE_ConnectionID& other) const {
  return mAddress == other.mAddress && mPort == other.mPort;
}

bool TCPE_ConnectionID::operator!=(const TCPE_ConnectionID& other) const { return !(*this == other); }

bool TCPE_ConnectionID::operator<(const TCPE_ConnectionID& other) const {
  return std::tie(mAddress, mPort) < std::tie(other.mAddress, other.mPort);
}

TCPE_ConnectionID TCPE_ConnectionID::AddressAndPort2ConnectionID(std::uint32_t address, std::uint16_t port) {
  return {address, port};
}

void TCPE_ConnectionID::ConnectionID2AddressAndPort(const TCPE_ConnectionID& id, std::uint32_t* address,
                                                    std::uint16_t* port) {
  *address = id.mAddress;
  *port = id.mPort;
}

std::string TCPE_ConnectionID::DecodeConnectionID(const TCPE_ConnectionID& id) {
  return Sys_Socket::DecodeIPAddress(id.mAddress) + " " + Cmn_Int32ToString(id.mPort);
}
