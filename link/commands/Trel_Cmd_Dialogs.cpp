#include <trel/Trel_Cmd_Dialogs.h>

void Trel_Cmd_DialogOnScreen::PrepareTransmitCommand(char** cursor) {
  mDialogCode = static_cast<std::int32_t>(static_cast<std::uint32_t>(mDialogType) + 1); // wraps for any value
  Trel_DescribedCommand::PrepareTransmitCommand(cursor);
}

void Trel_Cmd_DialogOnScreen::PrepareReceiveCommand(char** cursor) {
  Trel_DescribedCommand::PrepareReceiveCommand(cursor);
  if (GetReceivedRevision() >= 2) { // the type itself has arrived
    return;
  }
  if (mDialogCode == 0) {
    mDialogType = eTrel_DialogType_None;
  } else if (mDialogCode >= 1 && mDialogCode <= 4) {
    mDialogType = static_cast<ETrel_DialogType>(mDialogCode - 1);
  }
}
