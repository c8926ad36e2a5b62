#include <trel/Trel_CommTask.h>

#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_CommManager.h>

#include "tests/support/NumberingTest.h"

namespace {

using Trel_CommTaskTest = NumberingTest;
INSTANTIATE_NUMBERING_TESTS(Trel_CommTaskTest);

TEST_P(Trel_CommTaskTest, SendsAnObjectAgainByItsClass) {
  TCPE_CommManager manager;
  Trel_CommTask task(0, 0, manager.GetLocalSystem(), 1, &manager);
  Trel_Cmd_GetState command;
  Trel_CommManager::SendCommand(&command);
  EXPECT_EQ(command.GetError(), eTCPE_CommErr_NotInitialized);
  EXPECT_EQ(command.GetCommandType(), task.GetErrorCommandID());
  for (const TCPE_eCmd left : {command.GetCommandType(), 0, 1, -1, task.GetErrorCommandID()}) {
    command.SetCommandType(left);
    EXPECT_EQ(task.PrepareToSend(&command), eTCPE_CommErr_None);
    EXPECT_EQ(command.GetCommandType(), Trel_Cmd_GetState::GetCommandID());
    TCPE_Command unknown(nullptr, left, 0);
    EXPECT_EQ(task.TCPE_CommTask::PrepareToSend(&unknown) == eTCPE_CommErr_None,
              left != 0 && left != task.GetErrorCommandID());
  }
  Trel_CommManager::Terminate();
}

} // namespace
