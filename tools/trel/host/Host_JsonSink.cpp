#include "tools/trel/host/Host_JsonSink.h"

#include "tools/trel/common/JsonLine.h"
#include "tools/trel/host/Host_Event.h"

void Host_JsonSink::Take(const Host_Event& event) {
  using Json = nlohmann::ordered_json;
  if (event.kind == "prompt") {
    return;
  }
  Json json = {{"event", event.kind}, {"time_us", event.rawTime}};
  if (!event.text.empty()) {
    json["text"] = event.text;
  }
  for (const auto& [name, value] : event.fields.items()) {
    json[name] = value;
  }
  mOut << JsonLine(json) << '\n' << std::flush;
}
