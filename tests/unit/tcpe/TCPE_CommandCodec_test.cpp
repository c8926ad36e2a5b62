#include "tcpe/TCPE_CommandCodec.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CommTask.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"

namespace {

class TCPE_CommandCodecTest : public NumberingTest {};
INSTANTIATE_NUMBERING_TESTS(TCPE_CommandCodecTest);

TEST_P(TCPE_CommandCodecTest, TheConnectCommandIntroducesTheLocalSystem) {
  TCPE_System system;
  system.SetSystemName("Al");
  system.SetHostName("host");
  system.SetUniqueID(0x01020304);
  Trel_CommTask task(0, 0, &system, 128, nullptr);
  Trel_Cmd_Connect command;
  task.FillConnectCommand(&command, system);
  TCPE_CommandCodec codec;
  ASSERT_EQ(codec.EncodeCommand(task, command,
                                {.wireType = task.GetTCPECommandType(command.GetCommandType()),
                                 .serial = 2,
                                 .localSystemType = eTCPE_SystemType_Satellite,
                                 .replyWanted = true}),
            eTCPE_CommErr_None);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(codec.Frame().data()), codec.Frame().size()),
            FromHex(IsCurrent() ? "0126 0401 0008 0200 00000005 00000002 d773 0000 01020304 00000000"
                                  " 416c 00*28 686f7374 00*252"
                                : "003c 0301 0008 0200 fffffffc 00000002 dd6b 0000 416c 00*28 686f7374 00*26"));
}

} // namespace
