#pragma once

#include "tools/trel/common/Status_Snapshot.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

/// Lets other programs of the same user look into this process: through a local socket it gives everybody who connects
/// a line of status at once, and another one four times a second. The thread sleeps while nobody is connected. Clients
/// only cost what they read: one that does not read gets no further line, and is sent away after a while.
class Status_Server {
public:
  /// Called on the thread of the server, while there is somebody to read it.
  using MakeStatus = std::function<Status_Snapshot()>;

  explicit Status_Server(MakeStatus makeStatus);
  /// Sends the clients away and removes the socket.
  ~Status_Server();
  Status_Server(const Status_Server&) = delete;
  Status_Server& operator=(const Status_Server&) = delete;

  /// Why nobody can look in, in words; empty when everybody can who may.
  const std::string& Trouble() const { return mTrouble; }

private:
  static constexpr std::size_t kMostClients = 8;

  struct Client {
    int descriptor;
    std::string unsent;
    std::int64_t lastTaken; // raw time when it last took something
  };

  /// False when there is no place for the socket, and why is in mTrouble. The host goes on without it.
  bool Listen();
  void Run();
  /// False when a client waits and cannot be admitted now.
  bool Admit();
  /// False when the client has gone, or must go.
  static bool Serve(Client& client, const std::string& line);

  MakeStatus mMakeStatus;
  std::string mPath;
  std::string mTrouble;
  int mListener = -1;
  std::array<int, 2> mEnd = {-1, -1}; // a pipe, closed to end the thread
  std::vector<Client> mClients;
  std::thread mThread;
};
