#pragma once

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

class Host_Arguments;
class Host_Events;

/// Understands the lines that a user types: a table of commands, each with its arguments and its help.
class Host_Console {
public:
  /// What a command answers.
  struct Answer {
    std::string text = {};
    nlohmann::json fields = nlohmann::json::object();
  };
  struct Command {
    const char* name;
    const char* arguments;                      ///< how they are written
    const char* summary;                        ///< half a line; empty: help does not list it
    const char* details;                        ///< what else there is to know; may be empty
    std::function<Answer(Host_Arguments&)> run; ///< throws Host_Error
  };

  /// "help" is added.
  Host_Console(std::vector<Command> commands, Host_Events& events);

  /// Carries out a line and tells one answer to it, or one error. Empty lines and comments (#) are nothing.
  /// @return false when it was not carried out
  bool Execute(const std::string& line);

private:
  const Command* Find(const std::string& name) const;
  Answer Help(Host_Arguments& arguments) const;
  void Fail(const std::string& command, const std::string& text);

  std::vector<Command> mCommands;
  Host_Events& mEvents;
};
