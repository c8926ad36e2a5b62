#pragma once

/// @file
/// Everything that a host of the link needs.

#include <trel/Cmn_Assert.h>
#include <trel/Cmn_FeatureAuthorization.h>
#include <trel/Cmn_NumberToText.h>
#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Init.h>
#include <trel/Sys_Socket.h>
#include <trel/Sys_Umid.h>
#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_CommPreferences.h>
#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>
#include <trel/TCPE_System.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_CommTask.h>
#include <trel/Trel_Command.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Enumerations.h>
#include <trel/Trel_Init.h>
#include <trel/Trel_LinearCorrelator.h>
#include <trel/Trel_Messenger.h>
#include <trel/Trel_TCPEInterface.h>
