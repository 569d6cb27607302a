// The local backend: one Unix-domain datagram socket per registration,
// bound at TEV_DIR/<application name>, or TEV_DIR/root/<application name>
// for a process running as root.
//
// The rendezvous directory is writable by everybody (agents under any
// account answer clients there), so a name in it proves nothing about who
// holds it. Names registered by root therefore live in a subdirectory only
// root may write: nobody else can take them, not even while their owner is
// down, and a sender that must reach root (a client sending a password)
// addresses that directory alone.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tev_backend.h"
#include "tev_wire.h"

namespace {

constexpr int kSocketBuffer = 1 << 20;      // room for many maximum datagrams
constexpr int kDefaultSendWaitMs = 5000;    // a peer that never reads
constexpr std::string_view kRootDir = "root";

int system_error(TevFeedback& fb, const char* what, int err) {
  std::string text = std::string(what) + ": " + std::strerror(err);
  return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, err, text);
}

bool make_address(const std::string& path, sockaddr_un& addr, socklen_t& len) {
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.data(), path.size());
  len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return true;
}

// The rendezvous directory must exist; a root process refuses one that
// anyone could have prepared to capture its socket.
int check_directory(TevFeedback& fb, const std::string& dir) {
  struct stat st {};
  if (lstat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT) return system_error(fb, "Transport directory", errno);
    if (mkdir(dir.c_str(), 01777) != 0 && errno != EEXIST)
      return system_error(fb, "Cannot create transport directory", errno);
    if (chmod(dir.c_str(), 01777) != 0) return system_error(fb, "Transport directory", errno);
    if (lstat(dir.c_str(), &st) != 0) return system_error(fb, "Transport directory", errno);
  }
  bool is_root = geteuid() == 0;
  if (is_root && S_ISLNK(st.st_mode))
    return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, EPERM,
                    "Transport directory is a symbolic link");
  if (S_ISLNK(st.st_mode) && stat(dir.c_str(), &st) != 0)
    return system_error(fb, "Transport directory", errno);
  if (!S_ISDIR(st.st_mode))
    return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, ENOTDIR,
                    "Transport directory is not a directory");
  if (is_root && (st.st_uid != 0 || ((st.st_mode & S_IWOTH) && !(st.st_mode & S_ISVTX))))
    return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, EPERM,
                    "Transport directory is not safe");
  return 0;
}

// Root's subdirectory, made when missing, mode 0755 (everybody must reach
// root's sockets). One that somebody else made first (the rendezvous
// directory lets anyone create entries) is moved aside, so nobody can keep
// root from registering or hold root's names.
int check_root_directory(TevFeedback& fb, const std::string& dir) {
  std::string path = dir + "/" + std::string(kRootDir);
  for (int attempt = 0; attempt < 3; ++attempt) {
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
      if (S_ISDIR(st.st_mode) && st.st_uid == 0)
        return chmod(path.c_str(), 0755) == 0 ? 0 : system_error(fb, "Transport root directory", errno);
      std::string aside = path + ".stale." + std::to_string(getpid()) + "." + std::to_string(attempt);
      if (rename(path.c_str(), aside.c_str()) != 0 && errno != ENOENT)
        return system_error(fb, "Transport root directory", errno);
    } else if (errno != ENOENT) {
      return system_error(fb, "Transport root directory", errno);
    }
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
      return system_error(fb, "Cannot create transport root directory", errno);
  }
  return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, EPERM, "Transport root directory is not safe");
}

// True when something answers at `addr` (the name is in use).
bool someone_bound(const sockaddr_un& addr, socklen_t len) {
  int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) return true;  // cannot tell: do not steal the name
  ssize_t r = sendto(probe, "", 0, 0, reinterpret_cast<const sockaddr*>(&addr), len);
  int err = errno;
  close(probe);
  return !(r < 0 && (err == ECONNREFUSED || err == ENOENT));
}

class UnixEndpoint final : public TevEndpoint {
 public:
  UnixEndpoint(int fd, std::string path, std::string dir)
      : fd_(fd), owner_(getpid()), path_(std::move(path)), dir_(std::move(dir)),
        root_dir_(dir_ + "/" + std::string(kRootDir)), buffer_(kTevHeaderSize + kTevMaxPayload + 1) {}

  // Only the process that registered removes the name: a forked child that
  // exits must not take its parent's name away.
  ~UnixEndpoint() override {
    close(fd_);
    if (getpid() == owner_) unlink(path_.c_str());
  }

  void set_send_wait(int milliseconds) override {
    send_wait_ms_ = std::max(0, milliseconds);
    timeval timeout{send_wait_ms_ / 1000, (send_wait_ms_ % 1000) * 1000};
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  }
  void set_root_peers_only(bool on) override { root_peers_only_ = on; }
  int wait_fds(pollfd* fds) const override {
    fds[0] = {fd_, POLLIN, 0};
    return 1;
  }

  // A name is looked for in root's directory first, then in the shared one,
  // unless only root's registrations may receive. The sender of the last
  // message received is answered where it was found, without a second look.
  int send(TevFeedback& fb, std::uint8_t kind, std::uint32_t conversation,
           const TevIdentity& local, const TevIdentity& remote,
           std::span<const std::uint8_t> payload) override {
    std::string_view name = remote.app_name();
    std::array<std::uint8_t, kTevHeaderSize> header;
    tev_encode_header(header, kind, conversation, local, remote, payload.size());
    iovec iov[2] = {{header.data(), header.size()},
                    {const_cast<std::uint8_t*>(payload.data()), payload.size()}};
    if (name == last_sender_ && (!root_peers_only_ || last_sender_is_root_))
      return send_msg(fb, last_sender_addr_, last_sender_len_, iov, payload.empty() ? 1 : 2);
    int rc = send_to(fb, root_dir_, name, iov, payload.empty() ? 1 : 2);
    if (rc == 0 || root_peers_only_ || fb.FB_Src != kTevSrcNoRcvr) return rc;
    return send_to(fb, dir_, name, iov, payload.empty() ? 1 : 2);
  }

  int receive(TevFeedback& fb, TevIncoming& out, std::size_t max_payload,
              int timeout_ms) override {
    for (;;) {
      if (timeout_ms >= 0) {
        pollfd p{fd_, POLLIN, 0};
        int r = poll(&p, 1, timeout_ms);
        if (r < 0 && errno == EINTR)
          return tev_fail(fb, kTevPrcLogicErr, kTevSrcRcvCnc, EINTR, "Receive was canceled");
        if (r < 0) return system_error(fb, "Receive", errno);
        if (r == 0) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
      }
      sockaddr_un from{};
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
      iovec iov{buffer_.data(), buffer_.size()};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof from;
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      ssize_t n = recvmsg(fd_, &msg, MSG_CMSG_CLOEXEC | (timeout_ms >= 0 ? MSG_DONTWAIT : 0));
      if (n < 0) {
        int err = errno;
        if (err == EINTR)
          return tev_fail(fb, kTevPrcLogicErr, kTevSrcRcvCnc, EINTR, "Receive was canceled");
        if (err == EAGAIN || err == EWOULDBLOCK) continue;  // raced with another reader
        return system_error(fb, "Receive", err);
      }
      if (accept(fb, msg, from, static_cast<std::size_t>(n), max_payload, out)) return 0;
      ++fb.FB_Dropped;
    }
  }

 private:
  // Validates one received datagram and fills `out`; false drops it.
  bool accept(TevFeedback& /*fb*/, const msghdr& msg, const sockaddr_un& from, std::size_t n,
              std::size_t max_payload, TevIncoming& out) {
    if (msg.msg_flags & MSG_TRUNC) return false;
    auto d = tev_decode(std::span<const std::uint8_t>(buffer_.data(), n));
    if (!d || d->payload.size() > max_payload) return false;
    // The sender's name is the one the kernel reports, not the one claimed.
    std::size_t path_len = msg.msg_namelen > offsetof(sockaddr_un, sun_path)
                               ? msg.msg_namelen - offsetof(sockaddr_un, sun_path)
                               : 0;
    std::string_view path(from.sun_path, strnlen(from.sun_path, path_len));
    // Only a socket in the rendezvous directory (or root's) is a sender:
    // one bound elsewhere under a client's name must not get its replies.
    std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return false;
    std::string_view name = path.substr(slash + 1), where = path.substr(0, slash);
    if (name.empty() || name.size() > kTevMaxAppName || name != d->sender.app_name()) return false;
    bool from_root = where == root_dir_;
    if (!from_root && where != dir_) return false;
    last_sender_.assign(name);
    last_sender_is_root_ = from_root;
    // Kept as the kernel gave it, so that a reply needs no address built.
    last_sender_addr_ = from;
    last_sender_len_ = msg.msg_namelen;

    out.kind = d->kind;
    out.conversation = d->conversation;
    out.sender.clear();
    out.sender.set_flag(d->sender.flag());
    out.sender.set_system_id(tev_node_name());
    out.sender.set_app_name(name);
    out.inquiry = TevInquiry{};
    for (cmsghdr* c = CMSG_FIRSTHDR(const_cast<msghdr*>(&msg)); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&msg), c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
          c->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
        ucred cred;
        std::memcpy(&cred, CMSG_DATA(c), sizeof cred);
        out.inquiry = TevInquiry{true, cred.pid, cred.uid, cred.gid, {}};
      }
    }
    out.payload = d->payload;
    return true;
  }

  int send_to(TevFeedback& fb, const std::string& dir, std::string_view name, iovec* iov, std::size_t parts) {
    sockaddr_un addr;
    socklen_t len;
    if (!make_address(dir + "/" + std::string(name), addr, len))
      return tev_fail(fb, kTevPrcPlistErr, 0, ENAMETOOLONG, "Remote name too long for a path");
    return send_msg(fb, addr, len, iov, parts);
  }

  int send_msg(TevFeedback& fb, sockaddr_un& addr, socklen_t len, iovec* iov, std::size_t parts) {
    msghdr msg{};
    msg.msg_name = &addr;
    msg.msg_namelen = len;
    msg.msg_iov = iov;
    msg.msg_iovlen = parts;
    // A peer that does not read fills its queue: the send then waits (up to
    // the socket's send time-out) or, with no wait allowed, fails at once.
    int flags = MSG_NOSIGNAL | (send_wait_ms_ == 0 ? MSG_DONTWAIT : 0);
    for (;;) {
      if (sendmsg(fd_, &msg, flags) >= 0) return 0;
      int err = errno;
      if (err == EINTR) continue;
      if (err == ENOENT || err == ECONNREFUSED || err == ENOTDIR)
        return tev_fail(fb, kTevPrcLogicErr, kTevSrcNoRcvr, err, "No receiver online");
      if (err == EAGAIN || err == EWOULDBLOCK)
        return tev_fail(fb, kTevPrcLogicErr, kTevSrcSndDrc, err, "Send error: receiver not reading");
      return system_error(fb, "Send", err);
    }
  }

  int fd_;
  pid_t owner_;
  std::string path_;
  std::string dir_;
  std::string root_dir_;
  std::vector<std::uint8_t> buffer_;  // one datagram; reused by every receive
  std::string last_sender_;           // name of the last sender received, and where it lives
  bool last_sender_is_root_ = false;
  sockaddr_un last_sender_addr_{};    // its address as received
  socklen_t last_sender_len_ = 0;
  int send_wait_ms_ = kDefaultSendWaitMs;
  bool root_peers_only_ = false;
};

void set_buffer_size(int fd, int option, int force_option) {
  int size = kSocketBuffer;
  if (setsockopt(fd, SOL_SOCKET, force_option, &size, sizeof size) != 0)
    setsockopt(fd, SOL_SOCKET, option, &size, sizeof size);
}

}  // namespace

std::unique_ptr<TevEndpoint> tev_unix_open(TevFeedback& fb, const TevIdentity& id) {
  std::string dir = tev_directory();
  if (check_directory(fb, dir) != 0) return nullptr;
  bool is_root = geteuid() == 0;
  if (is_root && check_root_directory(fb, dir) != 0) return nullptr;
  std::string path = (is_root ? dir + "/" + std::string(kRootDir) : dir) + "/" + std::string(id.app_name());
  sockaddr_un addr;
  socklen_t len;
  if (!make_address(path, addr, len)) {
    tev_fail(fb, kTevPrcPlistErr, 0, ENAMETOOLONG, "Socket path too long");
    return nullptr;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    system_error(fb, "Socket", errno);
    return nullptr;
  }
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), len) != 0) {
    int err = errno;
    struct stat st {};
    bool stale = err == EADDRINUSE && lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) &&
                 !someone_bound(addr, len);
    if (!stale || unlink(path.c_str()) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&addr), len) != 0) {
      close(fd);
      if (err == EADDRINUSE)
        tev_fail(fb, kTevPrcLogicErr, kTevSrcNoPath, err, "Remote resource not available");
      else
        system_error(fb, "Bind", err);
      return nullptr;
    }
  }
  // Agents under other uids answer clients through this name.
  if (chmod(path.c_str(), 0666) != 0) {
    int err = errno;
    close(fd);
    unlink(path.c_str());
    system_error(fb, "Socket mode", err);
    return nullptr;
  }
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  set_buffer_size(fd, SO_RCVBUF, SO_RCVBUFFORCE);
  set_buffer_size(fd, SO_SNDBUF, SO_SNDBUFFORCE);
  auto endpoint = std::make_unique<UnixEndpoint>(fd, std::move(path), std::move(dir));
  endpoint->set_send_wait(kDefaultSendWaitMs);
  return endpoint;
}
