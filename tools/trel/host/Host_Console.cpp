#include "tools/trel/host/Host_Console.h"

#include "tools/trel/host/Host_Arguments.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_UsageError.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace {

std::string UsageOf(const Host_Console::Command& command) {
  return std::string(command.name) + (*command.arguments == '\0' ? "" : " ") + command.arguments;
}

} // namespace

Host_Console::Host_Console(std::vector<Command> commands, Host_Events& events)
    : mCommands(std::move(commands)), mEvents(events) {
  mCommands.push_back({"help", "[COMMAND]", "lists the commands, or explains one", "",
                       [this](Host_Arguments& arguments) { return Help(arguments); }});
}

bool Host_Console::Execute(const std::string& line) {
  Host_Arguments arguments(line);
  if (arguments.IsEmpty()) {
    return true;
  }
  const std::string name = arguments.TakeWord("a command");
  if (name.front() == '#') {
    return true;
  }
  const Command* const command = Find(name);
  if (command == nullptr) {
    Fail(name, "there is no command \"" + name + "\"; type help for all commands");
    return false;
  }
  try {
    Answer answer = command->run(arguments);
    answer.fields["command"] = name;
    mEvents.Tell({.kind = "answer", .text = answer.text, .fields = answer.fields, .isAnswer = true});
    return true;
  } catch (const Host_UsageError& error) {
    Fail(name, error.what() + (". The command is: " + UsageOf(*command)));
  } catch (const Host_Error& error) {
    Fail(name, error.what());
  }
  return false;
}

const Host_Console::Command* Host_Console::Find(const std::string& name) const {
  const auto found = std::find_if(mCommands.begin(), mCommands.end(),
                                  [&name](const Command& command) { return command.name == name; });
  return found != mCommands.end() ? &*found : nullptr;
}

Host_Console::Answer Host_Console::Help(Host_Arguments& arguments) const {
  std::ostringstream text;
  if (arguments.IsEmpty()) {
    std::vector<Command> listed = mCommands;
    std::erase_if(listed, [](const Command& command) { return *command.summary == '\0'; });
    std::size_t width = 0;
    for (const Command& command : listed) {
      width = std::max(width, UsageOf(command).size());
    }
    for (const Command& command : listed) {
      const std::string usage = UsageOf(command);
      text << "  " << usage << std::string(width + 2 - usage.size(), ' ') << command.summary << '\n';
    }
    text << "Times: 500ms, 2s, 1.5s. \"help start\" explains start, and so on.";
    return {.text = text.str()};
  }
  const std::string name = arguments.TakeWord("a command");
  const Command* const command = Find(name);
  if (command == nullptr) {
    throw Host_UsageError("there is no command \"" + name + "\"; type help for all commands");
  }
  text << UsageOf(*command) << ": " << command->summary << '.';
  if (*command->details != '\0') {
    text << '\n' << command->details;
  }
  return {.text = text.str()};
}

void Host_Console::Fail(const std::string& command, const std::string& text) {
  mEvents.Tell({.kind = "error", .text = command + ": " + text, .fields = {{"command", command}}, .isAnswer = true});
}
