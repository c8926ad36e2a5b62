#pragma once

#include <trel/host/Trel_CommandCatalogue.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The payload of one command, or of its reply, in the numbering in force. What is wrong on a command line is a
/// std::invalid_argument that says what, what is wrong in a payload a std::runtime_error.
class Catalogue_Payload {
public:
  struct Options {
    std::string command; ///< its name
    bool isReply = false;
    std::optional<std::uint8_t> revision; ///< the command's own without
  };

  explicit Catalogue_Payload(const Options& options);

  /// Sets a field from FIELD=VALUE.
  void Assign(const std::string& assignment);
  /// The bytes; fields that the revision does not carry are left out.
  std::string Encode();
  /// Reads the fields as a receiver does and returns how many bytes it took.
  std::size_t Decode(std::string bytes);

  /// FIELD=VALUE, a line each.
  std::string FieldsText() const;
  /// Name, identifier, reply and revision.
  nlohmann::ordered_json HeadJson() const;
  nlohmann::ordered_json FieldsJson() const;
  /// What is odd about the assigned values, a line each: those that a receiver will not find as they were assigned,
  /// and numbers without a name.
  std::vector<std::string> Notes(const std::string& bytes) const;

private:
  using Place = Trel_CommandCatalogue::Place;

  const Trel_FieldDescription& FindField(const std::string& name) const;
  [[noreturn]] void RejectField(const std::string& name) const;
  Trel_FieldValue ValueOf(const Trel_FieldDescription& field) const;

  Options mOptions;
  const Trel_CommandDescription* mDescription;
  std::unique_ptr<Trel_Command> mCommand;
  std::uint8_t mRevision;
  std::vector<Place> mPlaces;
  std::vector<std::pair<const Trel_FieldDescription*, Trel_FieldValue>> mAssigned;
};
