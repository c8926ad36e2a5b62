#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

/// Commands about dialogs that one system puts up on behalf of another.

/// Tells that a dialog is on screen.
class TREL_EXPORT Trel_Cmd_DialogOnScreen : public Trel_DescribedCommand<Trel_Cmd_DialogOnScreen> {
  TREL_COMMAND(DialogOnScreen, .revision = 2)
  TREL_FIELD_WITHOUT_SETTER(Trel_I32<>, DialogCode, "dialog type + 1, for senders and receivers before revision 2")
  TREL_FIELD(Trel_Message, DialogMsg, "text of the dialog")
  TREL_FIELD(Trel_I32<ETrel_DialogType>, DialogType, "kind of dialog, ETrel_DialogType")
  static constexpr Trel_Payload kCommand{kDialogCode, Trel_Since(1, kDialogMsg, ""), Trel_Since(2, kDialogType)};

  explicit Trel_Cmd_DialogOnScreen(ETrel_DialogType dialogType) : mDialogType(dialogType) {}

  void PrepareTransmitCommand(char** cursor) override;
  void PrepareReceiveCommand(char** cursor) override;
};

/// Presses the OK button of the dialog on screen; returns when it has been acknowledged.
class TREL_EXPORT Trel_Cmd_OKDialog : public Trel_DescribedCommand<Trel_Cmd_OKDialog> {
  TREL_COMMAND(OKDialog, .synchronous = true)
};

/// Presses the Cancel button of the dialog on screen; returns when it has been acknowledged.
class TREL_EXPORT Trel_Cmd_CancelDialog : public Trel_DescribedCommand<Trel_Cmd_CancelDialog> {
  TREL_COMMAND(CancelDialog, .synchronous = true)
};
