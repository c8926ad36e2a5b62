#include "tools/trel/catalogue/Catalogue_Payload.h"

#include "tools/trel/catalogue/Catalogue_Names.h"
#include "tools/trel/catalogue/Catalogue_Values.h"

#include <trel/TCPE_CommManager.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <span>
#include <stdexcept>

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kMaxPayload = 16384;

Trel_Numbering NumberingInForce() {
  return TCPE_CommManager::GetSupportsMarlo11() ? Trel_Numbering::current : Trel_Numbering::legacy;
}

const Trel_CommandDescription& FindCommand(const std::string& name) {
  if (const Trel_CommandDescription* const description = Trel_CommandCatalogue::Find(name)) {
    return *description;
  }
  std::vector<std::string> names;
  for (const Trel_CommandDescription* const description : Trel_CommandCatalogue::Commands()) {
    names.emplace_back(description->identifiers.name);
  }
  throw std::invalid_argument("there is no command " + name +
                              NearNamesText(name, names, "; \"trel commands\" lists them all"));
}

bool Contains(std::span<const Trel_FieldDescription> fields, const std::string& name) {
  return std::any_of(fields.begin(), fields.end(),
                     [&](const Trel_FieldDescription& field) { return field.name == name; });
}

} // namespace

Catalogue_Payload::Catalogue_Payload(const Options& options)
    : mOptions(options), mDescription(&FindCommand(options.command)),
      mCommand(Trel_CommandCatalogue::Construct(*mDescription)),
      mRevision(options.revision.value_or(mDescription->traits.revision)),
      mPlaces(Trel_CommandCatalogue::Layout(options.isReply ? mDescription->reply : mDescription->command,
                                            NumberingInForce())) {}

void Catalogue_Payload::Assign(const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos) {
    throw std::invalid_argument(assignment + " is no FIELD=VALUE");
  }
  const Trel_FieldDescription& field = FindField(assignment.substr(0, equals));
  for (const auto& [assigned, value] : mAssigned) {
    if (assigned == &field) {
      throw std::invalid_argument(std::string(field.name) + " is given twice");
    }
  }
  const Trel_FieldValue value = ValueFromText(field, assignment.substr(equals + 1));
  if (!Trel_CommandCatalogue::SetField(*mCommand, field, value)) {
    throw std::invalid_argument(assignment + ": the field cannot have this value");
  }
  mAssigned.emplace_back(&field, value);
}

std::string Catalogue_Payload::Encode() {
  std::string bytes(kMaxPayload, '\0');
  char* cursor = bytes.data();
  mCommand->SetPayloadEnd(cursor + bytes.size());
  mOptions.isReply ? mCommand->PrepareTransmitReply(&cursor) : mCommand->PrepareTransmitCommand(&cursor);
  const bool fits = !mCommand->GetPayloadFault();
  mCommand->SetPayloadEnd(nullptr);
  if (!fits) {
    throw std::runtime_error("the payload does not fit in a frame, " + std::to_string(kMaxPayload) + " bytes");
  }
  bytes.resize(static_cast<std::size_t>(cursor - bytes.data()));
  if (!mOptions.revision) { // as the class itself writes
    return bytes;
  }
  std::string carried;
  for (const auto& [field, offset] : mPlaces) {
    if (field->since <= mRevision) {
      carried += bytes.substr(offset, field->width != 0 ? field->width : std::string::npos);
    }
  }
  return carried;
}

std::size_t Catalogue_Payload::Decode(std::string bytes) {
  mCommand->SetReceivedRevision(mRevision);
  char* cursor = bytes.data();
  mCommand->SetPayloadEnd(cursor + bytes.size());
  mOptions.isReply ? mCommand->PrepareReceiveReply(&cursor) : mCommand->PrepareReceiveCommand(&cursor);
  const bool isWhole = !mCommand->GetPayloadFault();
  mCommand->SetPayloadEnd(nullptr);
  const auto offset = static_cast<std::size_t>(cursor - bytes.data());
  if (isWhole) {
    return offset;
  }
  const auto beyond =
      std::find_if(mPlaces.begin(), mPlaces.end(), [&](const Place& place) { return place.offset > offset; });
  const Trel_FieldDescription& field = *std::prev(beyond)->field;
  throw std::runtime_error("the payload is too short: " + std::string(field.name) + " (" +
                           (field.width != 0 ? std::to_string(field.width) + " bytes" : KindName(field.kind)) +
                           ") does not fit at offset " + std::to_string(offset) + " of " +
                           std::to_string(bytes.size()) + " bytes");
}

std::string Catalogue_Payload::FieldsText() const {
  std::string text;
  for (const Place& place : mPlaces) {
    text += place.field->name + std::string("=") + ValueToText(*place.field, ValueOf(*place.field)) + '\n';
  }
  return text;
}

Json Catalogue_Payload::HeadJson() const {
  const auto& identifiers = mDescription->identifiers;
  return {{"name", identifiers.name},
          {"id", NumberingInForce() == Trel_Numbering::current ? identifiers.current : identifiers.legacy},
          {"reply", mOptions.isReply},
          {"revision", mRevision}};
}

Json Catalogue_Payload::FieldsJson() const {
  Json json = Json::object();
  for (const Place& place : mPlaces) {
    json[place.field->name] = ValueToJson(*place.field, ValueOf(*place.field));
  }
  return json;
}

std::vector<std::string> Catalogue_Payload::Notes(const std::string& bytes) const {
  std::vector<std::string> notes;
  if (mDescription->traits.currentOnly && NumberingInForce() == Trel_Numbering::legacy) {
    notes.push_back(mOptions.command + " exists in the current numbering alone and is not sent in the legacy one");
  }
  Catalogue_Payload arrived(mOptions);
  arrived.Decode(bytes);
  for (const auto& [field, value] : mAssigned) {
    if (IsUnnamed(*field, value)) {
      notes.push_back(field->name + std::string("=") + ValueToText(*field, value) + " has no name, unlike " +
                      NamedValuesText(*field));
    }
    if (arrived.ValueOf(*field) != value) {
      notes.push_back(field->name + std::string(" arrives as ") + ValueToText(*field, arrived.ValueOf(*field)));
    }
  }
  return notes;
}

const Trel_FieldDescription& Catalogue_Payload::FindField(const std::string& name) const {
  const auto place =
      std::find_if(mPlaces.begin(), mPlaces.end(), [&](const Place& one) { return one.field->name == name; });
  if (place == mPlaces.end()) {
    RejectField(name);
  }
  return *place->field;
}

void Catalogue_Payload::RejectField(const std::string& name) const {
  const bool isReply = mOptions.isReply;
  const std::string what = (isReply ? "the reply of " : "the command ") + mOptions.command;
  if (Contains(isReply ? mDescription->reply : mDescription->command, name)) {
    throw std::invalid_argument(what + " carries " + name + " in the other numbering alone");
  }
  if (Contains(isReply ? mDescription->command : mDescription->reply, name)) {
    throw std::invalid_argument(name + " is a field of the " +
                                (isReply ? "command: leave out --reply" : "reply: add --reply"));
  }
  std::vector<std::string> names;
  for (const Place& place : mPlaces) {
    names.emplace_back(place.field->name);
  }
  throw std::invalid_argument(
      what + " has no field " + name +
      NearNamesText(name, names, names.empty() ? ", nor any other" : "; its fields: " + Joined(names)));
}

Trel_FieldValue Catalogue_Payload::ValueOf(const Trel_FieldDescription& field) const {
  return Trel_CommandCatalogue::GetField(*mCommand, field).value();
}
