#pragma once

#include <trel/Trel_CommandDescription.h>

#include <memory>
#include <span>

/// One command class, without its type.
struct Trel_CommandClass {
  const Trel_CommandDescription* description;
  TCPE_Command* (*construct)(void* block);
  std::unique_ptr<Trel_Command> (*create)();
};

/// All command classes, in the order of the table of commands.
namespace Trel_Catalogue {

std::span<const Trel_CommandClass> Classes();

/// The class of an identifier that a peer can send in the numbering in force, or null.
const Trel_CommandClass* Find(std::int32_t identifier);

} // namespace Trel_Catalogue
