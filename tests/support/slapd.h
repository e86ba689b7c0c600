// tests/support/slapd.h - a real directory server on loopback, with a schema and people of the tests' own, and the
// servers that one does not want to meet.
#pragma once
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/program.h"

// A listening socket on the loopback net that nobody reads from: to a client, a server that takes connections and
// hangs.
class HangingServer {
public:
  explicit HangingServer(std::string const &host = "127.0.0.1", std::string const &port = "0")
      : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(host.c_str());
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    socklen_t length = sizeof address;
    if (bind(_socket, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(_socket, 16) != 0 ||
        getsockname(_socket, reinterpret_cast<sockaddr *>(&address), &length) != 0)
      abort();
    _port = ntohs(address.sin_port);
  }
  HangingServer(HangingServer const &) = delete;
  ~HangingServer() { close(_socket); }
  std::string Port() const { return std::to_string(_port); }
  int Socket() const { return _socket; }
  bool WasCalled() const {
    pollfd caller{_socket, POLLIN, 0};
    return poll(&caller, 1, 0) == 1;
  }

private:
  int _socket;
  int _port = 0;
};

// A port of 127.0.0.1 on which nothing listens.
inline std::string DeadPort() { return HangingServer().Port(); }

// A certificate for 127.0.0.1 that signs itself: to trust it is to trust its file. Another name makes one that does
// not match.
struct Certificate {
  std::string file, key;
  explicit Certificate(std::string const &directory, std::string const &name = "IP:127.0.0.1")
      : file(directory + "/" + name.substr(0, 3) + "cert.pem"), key(directory + "/" + name.substr(0, 3) + "key.pem") {
    ProgramRun const run =
        RunProgram("/usr/bin/openssl", {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                        "ec_paramgen_curve:P-256", "-nodes", "-keyout", key, "-out", file, "-days", "2",
                                        "-subj", "/CN=directory.example.org", "-addext", "subjectAltName=" + name});
    if (run.code != 0) throw std::runtime_error("openssl: " + run.err);
  }
};

// OpenLDAP's server, with a database in a directory of its own that goes with this object:
//
//   dc=example,dc=org                      readable for all, or with hidden set for the reader alone
//   cn=reader,dc=example,dc=org            password "reader"
//   uid=ann,ou=people,dc=example,dc=org    mail ann@example.org, login "ann", password "an apple"
class Slapd {
public:
  struct Options {
    Certificate const *certificate = nullptr;  // with one, StartTLS on the port and ldaps on the other
    bool hidden = false;                       // only the reader may search
    bool sasl = true;                          // offers challenges
    std::string more;                          // further entries, in LDIF
  };

  explicit Slapd(std::string const &parent, Options const &options) : _directory(parent + "/slapd-XXXXXX") {
    if (mkdtemp(_directory.data()) == nullptr) throw std::runtime_error("mkdtemp: " + _directory);
    std::filesystem::create_directory(_directory + "/data");
    Write("test.schema", kSchema);
    Write("slapd.conf", Configuration(options));
    Write("entries.ldif", kEntries + options.more);
    ProgramRun const run = RunProgram(
        "/usr/sbin/slapadd", {"slapadd", "-q", "-f", _directory + "/slapd.conf", "-l", _directory + "/entries.ldif"});
    if (run.code != 0) throw std::runtime_error("slapadd: " + run.err);
    for (int attempt = 0; attempt < 5 && _pid < 0; ++attempt) Start(options);  // a port may be gone meanwhile
    if (_pid < 0) throw std::runtime_error("slapd does not start");
  }
  explicit Slapd(std::string const &parent) : Slapd(parent, Options{}) {}
  Slapd(Slapd const &) = delete;
  ~Slapd() {
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(_directory, ignored);
  }

  void Stop() {
    if (_pid < 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    _pid = -1;
  }
  std::string Port() const { return _port; }
  std::string TlsPort() const { return _tlsPort; }
  std::string Url() const { return "LDAP://127.0.0.1:" + _port; }

private:
  static constexpr char kSchema[] =
      "attributetype ( 1.3.6.1.4.1.55555.1.1 NAME 'mailLogin' EQUALITY caseIgnoreMatch\n"
      "  SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )\n"
      "objectclass ( 1.3.6.1.4.1.55555.2.1 NAME 'mailPerson' SUP top AUXILIARY MAY mailLogin )\n";
  inline static std::string const kEntries =
      "dn: dc=example,dc=org\nobjectClass: domain\ndc: example\n\n"
      "dn: ou=people,dc=example,dc=org\nobjectClass: organizationalUnit\nou: people\n\n"
      "dn: cn=reader,dc=example,dc=org\nobjectClass: person\ncn: reader\nsn: reader\nuserPassword: reader\n\n"
      "dn: uid=ann,ou=people,dc=example,dc=org\nobjectClass: inetOrgPerson\nobjectClass: mailPerson\nuid: ann\n"
      "cn: Ann Quill\nsn: Quill\nmail: ann@example.org\nmailLogin: ann\nuserPassword: an apple\n\n";

  void Write(std::string const &name, std::string const &text) const {
    std::ofstream out(_directory + "/" + name);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + name);
  }
  std::string Configuration(Options const &options) const {
    std::string text;
    for (char const *schema : {"core", "cosine", "inetorgperson"})
      text += std::string("include /etc/ldap/schema/") + schema + ".schema\n";
    text += "include " + _directory + "/test.schema\nmodulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    text += "pidfile " + _directory + "/pid\nargsfile " + _directory + "/args\n";
    text += "password-hash {CLEARTEXT}\nsasl-auxprops slapd\nsasl-realm example.org\nsasl-host 127.0.0.1\n";
    text += std::string("sasl-secprops noanonymous,noplain") + (options.sasl ? "\n" : ",minssf=200\n");
    text += "authz-regexp \"^uid=([^,]+),.*cn=auth$\" \"uid=$1,ou=people,dc=example,dc=org\"\n";
    if (options.certificate != nullptr)
      text += "TLSCertificateFile " + options.certificate->file + "\nTLSCertificateKeyFile " +
              options.certificate->key + "\n";
    text += "database mdb\nsuffix dc=example,dc=org\nrootdn cn=root,dc=example,dc=org\nmaxsize 4194304\ndirectory " +
            _directory + "/data\ndbnosync\n";
    text += "access to attrs=userPassword by anonymous auth by * none\n";
    text += options.hidden ? "access to * by dn.exact=cn=reader,dc=example,dc=org read by anonymous auth\n"
                           : "access to * by * read\n";
    return text;
  }

  void Start(Options const &options) {
    _port = DeadPort();
    _tlsPort = options.certificate != nullptr ? DeadPort() : "";
    std::string urls = "ldap://127.0.0.1:" + _port;
    if (!_tlsPort.empty()) urls += " ldaps://127.0.0.1:" + _tlsPort;
    std::vector<std::string> words = {"slapd", "-d", "0", "-h", urls, "-f", _directory + "/slapd.conf"};
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawn(&_pid, "/usr/sbin/slapd", nullptr, nullptr, argv.data(), environ) != 0) _pid = -1;
    constexpr int kTries = 2000, kPause = 5;  // milliseconds between two tries
    for (int i = 0; i < kTries && _pid > 0; ++i) {
      if (Answers(_port)) return;
      if (waitpid(_pid, nullptr, WNOHANG) == _pid) _pid = -1;
      poll(nullptr, 0, kPause);
    }
    Stop();
  }
  static bool Answers(std::string const &port) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    bool const connected = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return connected;
  }

  std::string _directory, _port, _tlsPort;
  pid_t _pid = -1;
};
