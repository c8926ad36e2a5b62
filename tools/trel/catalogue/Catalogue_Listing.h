#pragma once

#include <trel/Trel_CommandDescription.h>

#include <ostream>

// The catalogue of commands as it is compiled in.

/// A line for each command and each of its fields. The numbering is the current or the legacy one.
void PrintCatalogue(std::ostream& out, Trel_Numbering numbering);
/// An array of objects, one for each command.
void PrintCatalogueJson(std::ostream& out, Trel_Numbering numbering);
/// The page of the documentation, for both numberings.
void PrintCatalogueMarkdown(std::ostream& out);
