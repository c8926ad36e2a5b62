#include "tools/trel/host/Host_RecordSink.h"

#include "tools/trel/common/Output_Standard.h"

Host_RecordSink::Host_RecordSink(const std::string& file)
    : mFile(file,
            [file](const std::string& reason) {
              Output_Standard::Say("cannot write " + file + ": " + reason + "; the recording ends here");
            }),
      mWriter(mFile) {}
