// Mail: what the mailer is handed, by whom, and what is refused. The mailer here is a script
// that keeps its arguments, its identity and the message.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/mail.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace {

constexpr char kTemplates[] = "/usr/vemo/share/mail/";

void Write(const std::string& path, const std::string& text, int mode = 0644) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// The text of a header, folded lines joined; "" when it is missing.
std::string Header(const std::string& message, const std::string& name) {
  const std::string head = message.substr(0, message.find("\n\n") + 1);
  std::smatch found;
  if (!std::regex_search(head, found, std::regex("(?:^|\n)" + name + ": ([^\n]*(?:\n [^\n]*)*)")))
    return "";
  return std::regex_replace(found[1].str(), std::regex("\n "), " ");
}

// Undone by Python's own reader of mail, which knows nothing of ours.
std::string Decoded(const std::string& what) {
  Write("/tmp/decode.py",
        "import email, email.policy, sys\n"
        "m = email.message_from_binary_file(open('/tmp/mail/message', 'rb'), "
        "policy=email.policy.default)\n"
        "sys.stdout.buffer.write((str(m['subject']) if sys.argv[1] == 'subject' else "
        "m.get_content()).encode())\n");
  EXPECT_EQ(system(("/usr/bin/python3 -I /tmp/decode.py " + what + " > /tmp/decoded").c_str()), 0);
  return Read("/tmp/decoded");
}

class Mail : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kTemplates);
    std::filesystem::create_directories("/tmp/mail");
    chmod("/tmp/mail", 0777);
    Write("/etc/vemoinfo.conf", "mail_from=\"nas@example.org\"\n");
    Mailer(
        "id -un > /tmp/mail/user; printf '%s\\n' \"$@\" > /tmp/mail/arguments; cat > "
        "/tmp/mail/part; "
        "env > /tmp/mail/environment; ls -l /proc/self/fd > /tmp/mail/descriptors; "
        "ps -o sid= -p $$ > /tmp/mail/session; mv /tmp/mail/part /tmp/mail/message");
    Template("enu", "hello",
             "Subject: Hello %USER_NAME%\n\nName: %USER_NAME%\nPassword: %PASSWD%\n");
  }

  static void Mailer(const std::string& lines) {
    unlink("/usr/sbin/sendmail");
    Write("/usr/sbin/sendmail", "#!/bin/sh\n" + lines + "\n", 0755);
  }

  static void Template(const std::string& language, const std::string& name,
                       const std::string& text) {
    Write(kTemplates + language + "/" + name, text);
  }

  // Sends, and waits for the message. "" when none comes.
  std::string Sent(const char* user, const char* password, const char* name = "hello",
                   const char* language = nullptr) {
    unlink("/tmp/mail/message");
    const std::unique_ptr<VEMOSZHASH, void (*)(VEMOSZHASH*)> values(VLIBCSzHashAlloc(16),
                                                                    VLIBCSzHashFree);
    VLIBCSzHashSetValue(values.get(), "%USER_NAME%", user);
    VLIBCSzHashSetValue(values.get(), "%PASSWD%", password);
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock(name, values.get(), "alice@example.org", language),
              0);
    for (int i = 0; i < 500 && access("/tmp/mail/message", F_OK) != 0; i++)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return Read("/tmp/mail/message");
  }
};

TEST_F(Mail, ATemplateIsFilledInAndHandedOver) {
  const std::string message = Sent("mona", "s3cret");
  EXPECT_EQ(Header(message, "From"), "nas@example.org");
  EXPECT_EQ(Header(message, "To"), "alice@example.org");
  EXPECT_EQ(Header(message, "Subject"), "Hello mona");
  EXPECT_EQ(Header(message, "Auto-Submitted"), "auto-generated");
  EXPECT_EQ(Header(message, "MIME-Version"), "1.0");
  EXPECT_EQ(Header(message, "Content-Type"), "text/plain; charset=UTF-8");
  EXPECT_EQ(Header(message, "Content-Transfer-Encoding"), "quoted-printable");
  EXPECT_TRUE(std::regex_match(Header(message, "Message-ID"),
                               std::regex("<[A-Za-z0-9_-]{22}@example.org>")));
  EXPECT_TRUE(
      std::regex_match(Header(message, "Date"),
                       std::regex("(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \\d{1,2} [A-Z][a-z]{2} \\d{4} "
                                  "\\d\\d:\\d\\d:\\d\\d [+-]\\d{4}")));
  EXPECT_EQ(message.substr(message.find("\n\n") + 2), "Name: mona\nPassword: s3cret\n");
}

TEST_F(Mail, TheMailerIsNobodyInParticular) {
  setenv("SECRET_OF_THE_REQUEST", "x", 1);
  Sent("mona", "s3cret");
  EXPECT_EQ(Read("/tmp/mail/user"), "mail\n");
  EXPECT_EQ(Read("/tmp/mail/arguments"), "-i\n-f\nnas@example.org\n--\nalice@example.org\n");
  EXPECT_EQ(Read("/tmp/mail/environment").find("SECRET"), std::string::npos);
  EXPECT_EQ(Read("/tmp/mail/environment").find("s3cret"), std::string::npos);
  EXPECT_EQ(Read("/tmp/mail/arguments").find("s3cret"), std::string::npos);
  // A session of its own, and none of our pipes: a web server would wait for their end.
  EXPECT_NE(std::stol(Read("/tmp/mail/session")), static_cast<long>(getsid(0)));
  EXPECT_EQ(Read("/tmp/mail/descriptors").find("pipe:"), std::string::npos);
}

TEST_F(Mail, NobodyWaitsForTheMailer) {
  Mailer("exec sleep 30");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], 1);
    dup2(ends[1], 2);
    close(ends[0]);
    close(ends[1]);
    _exit(VEMOMailSendMessageWithoutBlock("hello", nullptr, "alice@example.org", nullptr) == 0 ? 0
                                                                                               : 1);
  }
  close(ends[1]);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0);  // the end comes with our own
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(Mail, ALanguageOrTheConfiguredOneOrEnglish) {
  Template("ger", "hello", "Subject: Hallo\n\nger\n");
  Template("jpn", "hello", "Subject: J\n\njpn\n");
  EXPECT_EQ(Header(Sent("m", "p"), "Subject"), "Hello m");
  EXPECT_EQ(Header(Sent("m", "p", "hello", "ger"), "Subject"), "Hallo");
  EXPECT_EQ(Header(Sent("m", "p", "hello", "fre"), "Subject"), "Hello m");
  Write("/etc/vemoinfo.conf", "maillang=\"jpn\"\n");
  EXPECT_EQ(Header(Sent("m", "p"), "Subject"), "J");
  Write("/etc/vemoinfo.conf", "maillang=\"../../etc\"\n");
  EXPECT_EQ(Header(Sent("m", "p"), "Subject"), "Hello m");
}

TEST_F(Mail, TheSenderIsConfiguredOrTheHostsRoot) {
  for (const char* configured : {"", "mail_from=\"a b@c\"\n", "mail_from=\"-x@y\"\n"}) {
    Write("/etc/vemoinfo.conf", configured);
    EXPECT_TRUE(std::regex_match(Header(Sent("m", "p"), "From"), std::regex("root@[A-Za-z0-9.-]+")))
        << configured;
  }
}

TEST_F(Mail, HeadersAreNotForged) {
  for (const char* name : {"x\nBcc: evil@example.org", "x\r\nBcc: evil@example.org\r\n\r\nbody",
                           "x\rBcc: evil@example.org", "x\v\f\x01 y"}) {
    const std::string message = Sent(name, "p");
    EXPECT_EQ(Header(message, "Bcc"), "") << name;
    const std::string subject = Header(message, "Subject");
    EXPECT_EQ(subject.find_first_of("\r\v\f\x01"), std::string::npos);
    EXPECT_EQ(subject.compare(0, 7, "Hello x"), 0) << subject;
  }
}

TEST_F(Mail, WhatWasFilledInIsNotSearchedAgain) {
  const std::string message = Sent("%PASSWD%", "%USER_NAME%%PASSWD%");
  EXPECT_EQ(Header(message, "Subject"), "Hello %PASSWD%");
  EXPECT_EQ(Decoded("body"), "Name: %PASSWD%\nPassword: %USER_NAME%%PASSWD%\n");
}

TEST_F(Mail, PlaceholdersThatAreNoneStay) {
  Template("enu", "odd",
           "Subject: 100%\n\n%% %USER% %USER_NAME % %user_name% 5%USER_NAME%%\n%USER_NAME");
  Sent("m", "p", "odd");
  EXPECT_EQ(Decoded("body"), "%% %USER% %USER_NAME % %user_name% 5m%\n%USER_NAME\n");
  EXPECT_EQ(Decoded("subject"), "100%");
}

TEST_F(Mail, SubjectsOfAllKindsArriveWhole) {
  const std::string long_text = "\u540d\u524d";
  std::string many;
  for (int i = 0; i < 60; i++)
    many += i % 3 == 0 ? "\u00e4" : i % 3 == 1 ? "\u20ac" : "\U0001F600";
  for (const std::string& name :
       {std::string("J\u00f6rg"), long_text, many, std::string("=?UTF-8?B?eA==?="),
        std::string(200, 'x'), std::string("tab\there")}) {
    const std::string message = Sent(name.c_str(), "p");
    EXPECT_EQ(Decoded("subject"), "Hello " + std::regex_replace(name, std::regex("\t"), " "));
    std::istringstream lines(message);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), 76u) << line;
      for (const char c : line)
        EXPECT_LT(static_cast<unsigned char>(c), 0x80) << line;
    }
  }
}

TEST_F(Mail, TextsOfAllKindsArriveWhole) {
  std::string bytes;
  for (int c = 1; c < 128; c++) {
    if (c != '\r' && c != '\n') bytes += static_cast<char>(c);
  }
  for (const std::string& text :
       {bytes, std::string(5000, 'x'), std::string(500, ' '), std::string("end "),
        std::string("tab\t"), std::string("."), std::string("From me"), std::string("a=b=20"),
        std::string("\u540d\u524d\U0001F600"), std::string(300, '=')}) {
    Template("enu", "text", "Subject: s\n\n%PASSWD%\n.\nFrom here\n\n%PASSWD%");
    const std::string message = Sent("m", text.c_str(), "text");
    EXPECT_EQ(Decoded("body"), text + "\n.\nFrom here\n\n" + text + "\n") << text;
    std::istringstream lines(message);
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(line.size(), 76u) << line;
    EXPECT_EQ(message.find("\n."), std::string::npos);
    EXPECT_EQ(message.find("\nFrom "), std::string::npos);
  }
}

TEST_F(Mail, TemplatesOfManyForms) {
  struct Row {
    std::string text, subject, body;
  };
  for (const Row& row :
       {Row{"Subject: s\r\n\r\nline\r\nline\r\n", "s", "line\nline\n"},
        Row{"subject:s\n\nb", "s", "b\n"}, Row{"X-Other: y\nSubject: s\n\nb", "s", "b\n"},
        Row{"\nno head", "", "no head\n"}, Row{"Subject: s", "s", ""}, Row{"", "", ""},
        Row{"Subject: s\n\n\nb", "s", "\nb\n"}}) {
    Template("enu", "form", row.text);
    Sent("m", "p", "form");
    EXPECT_EQ(Decoded("subject"), row.subject) << row.text;
    EXPECT_EQ(Decoded("body"), row.body) << row.text;
  }
}

TEST_F(Mail, NamesThatAreNoTemplates) {
  Template("enu", ".hidden", "Subject: s\n\nb");
  Write("/usr/vemo/share/mail/secret", "Subject: s\n\nb");
  const std::string long_name(201, 'a');
  for (const char* name : {static_cast<const char*>(nullptr), "", ".hidden", "../secret", "a/b",
                           "a b", "hello\n", long_name.c_str()}) {
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock(name, nullptr, "a@b", nullptr), -1);
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM) << (name == nullptr ? "null" : name);
  }
  EXPECT_EQ(VEMOMailSendMessageWithoutBlock("nosuch", nullptr, "a@b", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  for (const char* language : {"", "de", "GER", "../", "germ"}) {
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock("hello", nullptr, "a@b", language), -1) << language;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM) << language;
  }
}

TEST_F(Mail, WhatStandsInATemplatesPlaceIsRefused) {
  std::filesystem::create_directories(kTemplates + std::string("enu/folder"));
  ASSERT_EQ(mkfifo((kTemplates + std::string("enu/fifo")).c_str(), 0644), 0);
  ASSERT_EQ(symlink("/etc/passwd", (kTemplates + std::string("enu/link")).c_str()), 0);
  Template("enu", "huge", std::string((1 << 20) + 1, 'x'));
  for (const char* name : {"folder", "fifo", "link", "huge"}) {
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock(name, nullptr, "a@b", nullptr), -1) << name;
    EXPECT_NE(VLIBCErrGet(), 0) << name;
  }
}

TEST_F(Mail, RecipientsAreOneAddress) {
  const std::string longest = std::string(250, 'a') + "@b.c",
                    too_long = std::string(251, 'a') + "@b.c";
  for (const char* good :
       {"a@b", "a.b+c@example.org", "o'neil@x-y.example", "A_1@EXAMPLE", longest.c_str()})
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock("hello", nullptr, good, nullptr), 0) << good;
  for (const char* bad : {static_cast<const char*>(nullptr),
                          "",
                          "alice",
                          "@b",
                          "a@",
                          "-x@b",
                          "-Xlog@b",
                          "a@b,c@d",
                          "a@b c",
                          "a b@c",
                          "a@b\nBcc: c@d",
                          "a@b\r",
                          "<a@b>",
                          "\"a b\"@c",
                          "a@-b",
                          "a@.b",
                          "a@b.",
                          ".a@b",
                          "a.@b",
                          "a..b@c",
                          "a@b_c",
                          "a(x)@b",
                          "a;@b",
                          "a\\@b",
                          "j\xc3\xb6rg@b",
                          too_long.c_str()}) {
    EXPECT_EQ(VEMOMailSendMessageWithoutBlock("hello", nullptr, bad, nullptr), -1)
        << (bad == nullptr ? "null" : bad);
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
}

TEST_F(Mail, WithoutAMailer) {
  unlink("/usr/sbin/sendmail");
  EXPECT_EQ(VEMOMailSendMessageWithoutBlock("hello", nullptr, "a@b", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  Write("/usr/sbin/sendmail", "no program", 0644);
  EXPECT_EQ(VEMOMailSendMessageWithoutBlock("hello", nullptr, "a@b", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
}

TEST_F(Mail, AfterTheProcessHasBecomeTheUser) {
  ASSERT_EQ(seteuid(65534), 0);
  Sent("mona", "p");
  EXPECT_EQ(geteuid(), 65534u);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(Read("/tmp/mail/user"), "mail\n");
}

TEST_F(Mail, WithSigchldIgnored) {
  signal(SIGCHLD, SIG_IGN);
  EXPECT_NE(Sent("mona", "p"), "");
}

}  // namespace
