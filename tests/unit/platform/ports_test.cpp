// Ports that are reserved, declared by services, or listened on.
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ports.h>

#include <cerrno>
#include <string>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

class Ports : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /usr/vemo/etc/ports.d; mkdir -p /usr/vemo/etc/ports.d");
    Write("/usr/vemo/etc/ports.d/reserved", "tcp=\"1:1023\"\n");
    Write("/usr/vemo/etc/ports.d/web.conf", "tcp=\"8000, 8100:8110\"\nudp=\"9000\"\n");
    Write("/usr/vemo/etc/ports.d/web_extra.conf", "tcp=\"8200\"\n");
    Write("/usr/vemo/etc/ports.d/other.conf", "tcp=\"8105:8200,nonsense,70000,5:1\"\n");
    Write("/usr/vemo/etc/ports.d/note.txt", "tcp=\"8300\"\n");
  }
  static std::string Ask(const char* services, const char* range, int checks = 28,
                         const char* protocol = "tcp") {
    VEMOSERVICEPORT* list = reinterpret_cast<VEMOSERVICEPORT*>(1);
    const int count = VLIBIsPortConflict(services, range, protocol, checks, &list);
    if (count <= 0) {
      EXPECT_EQ(list, nullptr);
    }
    std::string text = std::to_string(count);
    for (const VEMOSERVICEPORT* port = list; count > 0 && port != nullptr; port = port->next) {
      text += std::string(" ") + port->service + "/" + port->protocol + ":" +
              std::to_string(port->first) + "-" + std::to_string(port->last);
    }
    if (count > 0) VEMOServiceConfPortsFree(list);
    return text;
  }
};

TEST_F(Ports, OfOtherServicesAreConflicts) {
  EXPECT_EQ(Ask("ftp", "8000"), "1 web/tcp:8000-8000");
  EXPECT_EQ(Ask("ftp", "8100:8104"), "1 web/tcp:8100-8110");
  EXPECT_EQ(Ask("ftp", "8106"), "2 other/tcp:8105-8200 web/tcp:8100-8110");
  EXPECT_EQ(Ask("web", "8106"), "1 other/tcp:8105-8200");
  EXPECT_EQ(Ask("web, other", "8106"), "0");
  EXPECT_EQ(Ask("web", "8200"), "2 other/tcp:8105-8200 web_extra/tcp:8200-8200");
  EXPECT_EQ(Ask("web,web_extra", "8200"), "1 other/tcp:8105-8200");
  EXPECT_EQ(Ask("ftp", "80"), "1 reserved/tcp:1-1023");
  EXPECT_EQ(Ask("ftp", "8300"), "0");
  EXPECT_EQ(Ask("ftp", "8000", 4), "0");
  EXPECT_EQ(Ask("ftp", "80", 8), "0");
  EXPECT_EQ(Ask("ftp", "9000"), "0");
  EXPECT_EQ(Ask("ftp", "9000", 28, "udp"), "1 web/udp:9000-9000");
  EXPECT_EQ(VLIBIsPortConflict("ftp", "8000", "tcp", 28, nullptr), 1);
}

TEST_F(Ports, ThatAreListenedOnAreConflicts) {
  Shell(
      "setsid socat TCP-LISTEN:8400,bind=127.0.0.1,fork /dev/null & setsid socat "
      "TCP6-LISTEN:8000,bind=[::1] /dev/null & "
      "setsid socat -u UDP-RECV:8500 /dev/null & sleep 0.5");
  EXPECT_EQ(Ask("ftp", "8399:8401"), "1 listening/tcp:8400-8400");
  EXPECT_EQ(Ask("ftp", "8399:8401", 12), "0");
  EXPECT_EQ(Ask("web", "8000"), "0");  // its own, though somebody listens
  EXPECT_EQ(Ask("ftp", "8000"), "2 web/tcp:8000-8000 listening/tcp:8000-8000");
  EXPECT_EQ(Ask("ftp", "8500"), "0");
  EXPECT_EQ(Ask("ftp", "8500", 28, "udp"), "1 listening/udp:8500-8500");
}

TEST_F(Ports, WhatIsNoRange) {
  for (const char* range :
       {static_cast<const char*>(nullptr), "", "0", "65536", "-1", "5:1", "1:", ":1", "1:x", "x",
        "1 ", " 1", "1:2:3", "1:65536", "99999999999999999999"}) {
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(Ask("ftp", range), "-1");
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
  EXPECT_EQ(Ask("", "80"), "-1");
  EXPECT_EQ(Ask(nullptr, "80"), "-1");
  EXPECT_EQ(Ask("ftp", "80", 28, "icmp"), "-1");
  EXPECT_EQ(Ask("ftp", "65535", 28), "0");
  VEMOServiceConfPortsFree(nullptr);
}

TEST_F(Ports, WithoutDeclarationsThereAreNone) {
  Shell("rm -rf /usr/vemo/etc/ports.d");
  EXPECT_EQ(Ask("ftp", "80"), "0");
}

TEST_F(Ports, DeclarationsAsPeopleWriteThem) {
  struct Row {
    const char* list;
    const char* range;
    int conflicts;
  };
  for (const Row& row : {Row{"8600", "8600", 1},
                         {" 8600 ", "8600", 1},
                         {"8601 8600", "8600", 1},
                         {",,8601,,8600,,", "8600", 1},
                         {"8600:8600", "8600", 1},
                         {"8600:8610,8605:8620", "8607", 2},
                         {"8600:8610", "8590:8600", 1},
                         {"8600:8610", "8610:8700", 1},
                         {"8600:8610", "8500:8700", 1},
                         {"8600:8610", "8590:8599", 0},
                         {"8600:8610", "8611", 0},
                         // What is no port is passed over, whole.
                         {"8600x", "8600", 0},
                         {"8600-8610", "8600", 0},
                         {"8600:8610:8620", "8605", 0},
                         {"8600:", "8600", 0},
                         {"+8600", "8600", 0},
                         {"0x2198", "8600", 0},
                         {"", "8600", 0}}) {
    Write("/usr/vemo/etc/ports.d/other.conf", std::string("tcp=\"") + row.list + "\"\n");
    EXPECT_EQ(VLIBIsPortConflict("ftp", row.range, "tcp", 12, nullptr), row.conflicts)
        << row.list << " " << row.range;
  }
}

TEST_F(Ports, LongListsAreReadWhole) {
  std::string list;
  while (list.size() < 60000)
    list += "20000:20001,";
  Write("/usr/vemo/etc/ports.d/other.conf", "tcp=\"" + list + "8600\"\n");
  EXPECT_EQ(VLIBIsPortConflict("ftp", "8600", "tcp", 12, nullptr), 1);
}

TEST_F(Ports, NoFileAndNoLineOfAnotherProtocolIsADeclaration) {
  Shell("cd /usr/vemo/etc/ports.d; rm *; mkdir dir.conf; ln -s none gone.conf; mkfifo pipe.conf");
  Write("/usr/vemo/etc/ports.d/.hidden.conf", "tcp=8600\n");
  Write("/usr/vemo/etc/ports.d/.conf", "tcp=8600\n");
  Write("/usr/vemo/etc/ports.d/a.conf", "udp=8600\n");
  Write("/usr/vemo/etc/ports.d/b.conf.bak", "tcp=8600\n");
  EXPECT_EQ(Ask("ftp", "8600"), "0");
}

TEST_F(Ports, LongNamesOfServicesAreCut) {
  const std::string service(200, 's');
  Write("/usr/vemo/etc/ports.d/" + service + ".conf", "tcp=8600\n");
  EXPECT_EQ(Ask("ftp", "8600"), "1 " + std::string(63, 's') + "/tcp:8600-8600");
  EXPECT_EQ(Ask(service.c_str(), "8600"), "0");
  EXPECT_EQ(Ask(std::string(63, 's').c_str(), "8600", 12).substr(0, 1), "1");
}

TEST_F(Ports, WhatIsListenedOnMayNotBeTold) {
  Shell("umount -l /proc");
  VLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(Ask("ftp", "8600"), "-1");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_IO);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Ask("ftp", "8000"), "-1");  // not half an answer
  EXPECT_EQ(Ask("ftp", "8000", 12), "1 web/tcp:8000-8000");
  Shell("mount -t proc proc /proc");
}

TEST_F(Ports, OnlyListenersCount) {
  // Both ends of a connection have ports, too.
  Shell(
      "setsid socat TCP-LISTEN:8600,bind=127.0.0.1 EXEC:'sleep 20' & sleep 0.3; setsid sh -c "
      "'sleep 20 | socat -u - TCP:127.0.0.1:8600,bind=127.0.0.1:8601' & sleep 0.5");
  EXPECT_EQ(Ask("ftp", "8601"), "0");
}

}  // namespace
