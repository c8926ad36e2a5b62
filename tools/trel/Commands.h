#pragma once

namespace CLI {
class App;
}

// Each command adds itself to the program; when the command line names it, it runs and leaves its exit status.

void AddCommandsCommand(CLI::App& program, int& exitStatus);
void AddEncodeCommand(CLI::App& program, int& exitStatus);
void AddDecodeCommand(CLI::App& program, int& exitStatus);
void AddHostCommand(CLI::App& program, int& exitStatus);
void AddWatchCommand(CLI::App& program, int& exitStatus);
void AddDiscoverCommand(CLI::App& program, int& exitStatus);
void AddDoctorCommand(CLI::App& program, int& exitStatus);
void AddSecretCommand(CLI::App& program, int& exitStatus);
void AddDemoCommand(CLI::App& program, int& exitStatus);
void AddReportCommand(CLI::App& program, int& exitStatus);
void AddSimulateCommand(CLI::App& program, int& exitStatus);
