// Forms: the list of rules, the dispatch, the records and the answers.
#include <fcntl.h>
#include <forms/form_validator.h>
#include <forms/server_form_handler.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "faults/faults.h"
#include "support/request.h"

namespace {

using support::Answer;
using support::Get;
using support::RunRequest;

class Form : public ServerFormHandler {
 public:
  using ServerFormHandler::ServerFormHandler;
  bool Load() override {
    std::printf("load");
    return load_result;
  }
  bool Apply() override {
    std::printf("apply");
    return apply_result;
  }
  bool load_result = true;
  bool apply_result = false;
};

void LetEverybodyIn() {
  faults::hooks.VemoCgiIsAuthorized = [](VEMOCGI*, char*, int, const _tag_cgi_auth_request* asked,
                                         _tag_cgi_position position) {
    EXPECT_EQ(asked->privilege, 1);
    EXPECT_EQ(asked->passive, FALSE);
    EXPECT_EQ(position, VEMOCGI_POS_DESKTOP);
    return testing::Test::HasFailure() ? -9 : 1;
  };
}

// What a form prints for this query.
std::string Output(const std::string& query, const std::function<void(Form&)>& program) {
  const Answer answer = RunRequest(Get(query), "", [&] {
    Form form(nullptr);
    program(form);
  });
  EXPECT_EQ(answer.exit_status, 0);
  return answer.output;
}

constexpr char kHead[] = "Content-type: text/plain; charset=\"UTF-8\"\r\n\r\n";

TEST(Process, DispatchesTheAction) {
  const struct {
    const char *query, *output;
  } rows[] = {{"action=load", "load1"},      {"action=apply", "apply0"}, {"action=other", "1"},
              {"action=Load", "1"},          {"action=", "1"},           {"", "0"},
              {"{\"action\":\"load\"}", "0"}};
  for (const auto& row : rows) {
    EXPECT_EQ(Output(row.query,
                     [](Form& form) {
                       LetEverybodyIn();
                       std::printf("%d", form.Process());
                     }),
              row.output)
        << row.query;
  }
}

TEST(Process, GivesWhatTheHandlerGives) {
  for (const char* action : {"load", "apply"}) {
    for (const bool result : {false, true}) {
      EXPECT_EQ(Output(std::string("action=") + action,
                       [&](Form& form) {
                         LetEverybodyIn();
                         form.load_result = form.apply_result = result;
                         std::printf("%d", form.Process());
                       }),
                std::string(action) + (result ? "1" : "0"));
    }
  }
}

// A program decides itself who may use its form.
class OpenForm : public Form {
 public:
  using Form::Form;
  bool Authenticate() override { return true; }
};

TEST(Process, AProgramHasItsOwnCheckOfTheCaller) {
  const Answer answer = RunRequest(Get("action=load"), "", [] {
    OpenForm form(nullptr);
    std::printf("%d", form.Process());
  });
  EXPECT_EQ(answer.output, "load1");
}

TEST(Process, ParametersAreReadOnlyWhenAsked) {
  const Answer answer = RunRequest(Get("action=load"), "", [] {
    OpenForm form(false, nullptr);
    std::printf("%d", form.Process());
    form.request().LoadIn();
    std::printf("%d", form.Process());
    std::printf("%d", OpenForm(true, nullptr).Process());
  });
  EXPECT_EQ(answer.output, "0load1load1");
}

TEST(Process, ARefusedCallerIsAnsweredAndNothingIsDone) {
  const std::string output = Output("action=load", [](Form& form) {
    const bool processed = form.Process();
    std::printf("%d", processed);
  });
  EXPECT_NE(output.find("x-request-error: unauth\r\n"), std::string::npos);
  EXPECT_EQ(output.find("load"), std::string::npos);
  EXPECT_EQ(output.back(), '0');
}

TEST(Answers, Success) {
  EXPECT_EQ(Output("", [](Form& form) { form.ReportSuccess(Json::Value("x")); }),
            std::string(kHead) + "{\n   \"data\" : \"x\",\n   \"success\" : true\n}\n");
  EXPECT_EQ(Output("", [](Form& form) { form.ReportSuccess(Json::Value()); }),
            std::string(kHead) + "{\n   \"data\" : null,\n   \"success\" : true\n}\n");
}

TEST(Answers, HaveTheirContentTypeWhateverTheDefaultIs) {
  EXPECT_EQ(Output("",
                   [](Form& form) {
                     form.request().SetDefaultContentType("application/json");
                     form.ReportError();
                   })
                .substr(0, sizeof kHead - 1),
            kHead);
}

TEST(Answers, ASuccessHoldsAnyDataAndLeavesItAlone) {
  EXPECT_EQ(Output("",
                   [](Form& form) {
                     Json::Value data;
                     data["b"].append(1);
                     data["a"] = false;
                     form.ReportSuccess(data);
                     EXPECT_EQ(data.size(), 2u);
                   }),
            std::string(kHead) +
                "{\n   \"data\" : {\n      \"a\" : false,\n      \"b\" : [ 1 ]\n   },\n"
                "   \"success\" : true\n}\n");
}

TEST(Answers, AreFlushed) {
  const Answer answer = RunRequest(Get(""), "", [] {
    Form form(nullptr);
    form.ReportSuccess(Json::Value());
    _exit(0);
  });
  EXPECT_NE(answer.body, "");
}

TEST(Answers, FailureWithAndWithoutALine) {
  EXPECT_EQ(Output("", [](Form& form) { form.ReportFailMessage("s", "k", 0); }),
            std::string(kHead) +
                "{\n   \"errinfo\" : {\n      \"key\" : \"k\",\n      \"sec\" : "
                "\"s\"\n   },\n   \"success\" : false\n}\n");
  EXPECT_EQ(Output("", [](Form& form) { form.ReportFailMessage("s", "k", 4294967295u); }),
            std::string(kHead) +
                "{\n   \"errinfo\" : {\n      \"key\" : \"k\",\n      \"line\" : 4294967295,\n"
                "      \"sec\" : \"s\"\n   },\n   \"success\" : false\n}\n");
}

TEST(Answers, InvalidFields) {
  EXPECT_EQ(Output("", [](Form& form) { form.ReportInvalid(); }),
            std::string(kHead) + "{\n   \"errors\" : null,\n   \"success\" : false\n}\n");
  EXPECT_EQ(Output("",
                   [](Form& form) {
                     form.SetFieldInvalid("b", "two");
                     form.SetFieldInvalid("a", nullptr);
                     form.SetFieldInvalid("b", "three");
                     form.SetFieldInvalid(nullptr, "ignored");
                     form.ReportError();
                   }),
            std::string(kHead) +
                "{\n   \"errors\" : {\n      \"a\" : \"\",\n      \"b\" : \"three\"\n   },\n"
                "   \"success\" : false\n}\n");
}

std::string Errinfo(const std::string& section, const std::string& key) {
  return "\"key\" : \"" + key + "\",\n      \"sec\" : \"" + section + "\"";
}

TEST(Records, NothingRecordedIsASystemError) {
  EXPECT_NE(
      Output("", [](Form& form) { form.ReportError(); }).find(Errinfo("common", "error_system")),
      std::string::npos);
}

TEST(Records, TheFirstErrorStays) {
  const std::string output = Output("", [](Form& form) {
    form.SetFormErrInfo("one", "first", 7);
    form.SetFormErrInfo("two", "second", 8);
    form.SetFieldInvalid("field", "ignored");
    std::string section, key;
    int line = 0;
    form.GetFormErrInfo(section, key, line);
    if (section != "one" || key != "first" || line != 7 || form.HasInvalidFields()) _exit(1);
    form.ReportError();
  });
  EXPECT_EQ(output, std::string(kHead) +
                        "{\n   \"errinfo\" : {\n      \"key\" : \"first\",\n      \"line\" : 7,\n"
                        "      \"sec\" : \"one\"\n   },\n   \"success\" : false\n}\n");
}

TEST(Records, AnErrorAfterAMarkedFieldIsIgnored) {
  const std::string output = Output("", [](Form& form) {
    form.SetFieldInvalid("field", "text");
    form.SetFormErrInfo("s", "k", 1);
    std::string section = "x", key = "x";
    int line = 9;
    form.GetFormErrInfo(section, key, line);
    if (!section.empty() || !key.empty() || line != 0) _exit(1);
    form.ReportError();
  });
  EXPECT_NE(output.find("\"field\" : \"text\""), std::string::npos);
}

TEST(Records, NullTextsAreEmpty) {
  EXPECT_NE(Output("",
                   [](Form& form) {
                     form.SetFormErrInfo(nullptr, nullptr, 0);
                     form.ReportError();
                   })
                .find(Errinfo("", "")),
            std::string::npos);
}

TEST(Records, AFieldWithoutANameRecordsNothing) {
  EXPECT_NE(Output("",
                   [](Form& form) {
                     form.SetFieldInvalid(nullptr, "text");
                     EXPECT_FALSE(form.HasInvalidFields());
                     form.SetFormErrInfo("s", "k", 0);
                     form.ReportError();
                   })
                .find(Errinfo("s", "k")),
            std::string::npos);
}

TEST(ValidNullFields, AnErrorRecordedBeforeKeepsMarksAway) {
  const char* names[] = {"a"};
  EXPECT_NE(Output("",
                   [&](Form& form) {
                     form.SetFormErrInfo("s", "k", 0);
                     EXPECT_FALSE(form.ValidNullFields(names, 1));
                     form.ReportError();
                   })
                .find(Errinfo("s", "k")),
            std::string::npos);
}

TEST(ValidNullFields, NamesEveryAbsentField) {
  const char* names[] = {"a", "b", "c"};
  EXPECT_EQ(Output("b=", [&](Form& form) { std::printf("%d", form.ValidNullFields(names, 0)); }),
            "1");
  EXPECT_EQ(Output("b=", [&](Form& form) { std::printf("%d", form.ValidNullFields(names, -1)); }),
            "1");
  EXPECT_EQ(
      Output("a=1&b=&c=3", [&](Form& form) { std::printf("%d", form.ValidNullFields(names, 3)); }),
      "1");
  const std::string output = Output("b=", [&](Form& form) {
    if (form.ValidNullFields(names, 3)) _exit(1);
    form.ReportError();
  });
  EXPECT_NE(output.find("\"a\" : \"The field is not present.\",\n      \"c\" : "
                        "\"The field is not present.\""),
            std::string::npos);
}

// Locks.

constexpr char kLock[] = "/tmp/form.lock";

TEST(Lock, CreatesTheFileAndTakesIt) {
  umask(0);
  int descriptor = -2;
  ASSERT_TRUE(ServerFormHandler::LockFile(kLock, true, &descriptor));
  struct stat status;
  ASSERT_EQ(stat(kLock, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(descriptor, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);

  int second = -2;
  EXPECT_FALSE(ServerFormHandler::LockFile(kLock, true, &second));
  EXPECT_GE(second, 0);  // stays open, for the caller to close
  int shared = -2;
  EXPECT_FALSE(ServerFormHandler::LockFile(kLock, false, &shared));
  ServerFormHandler::UnlockFile(shared);
  ServerFormHandler::UnlockFile(descriptor);
  EXPECT_EQ(flock(second, LOCK_EX | LOCK_NB), 0);
  ServerFormHandler::UnlockFile(second);
  EXPECT_EQ(fcntl(second, F_GETFD), -1);
  ServerFormHandler::UnlockFile(-1);
}

TEST(Lock, ReadersShareIt) {
  int first = -1, second = -1, writer = -1;
  EXPECT_TRUE(ServerFormHandler::LockFile(kLock, false, &first));
  EXPECT_TRUE(ServerFormHandler::LockFile(kLock, false, &second));
  EXPECT_FALSE(ServerFormHandler::LockFile(kLock, true, &writer));
}

TEST(Lock, IsGivenBackAlsoWhenAChildHasTheDescriptor) {
  int descriptor = -1, next = -1;
  ASSERT_TRUE(ServerFormHandler::LockFile(kLock, true, &descriptor));
  const int inherited = dup(descriptor);
  ServerFormHandler::UnlockFile(descriptor);
  EXPECT_TRUE(ServerFormHandler::LockFile(kLock, true, &next));
  EXPECT_GE(inherited, 0);
}

TEST(Lock, AHandlerThatCannotOpenItRecordsTheSame) {
  for (const bool exclusive : {true, false}) {
    RunRequest(Get(""), "", [&] {
      Form form("/nowhere/form.lock");
      EXPECT_FALSE(exclusive ? form.ExLock() : form.ShLock());
      std::string section, key;
      int line = 9;
      form.GetFormErrInfo(section, key, line);
      EXPECT_EQ(section, "common");
      EXPECT_EQ(key, exclusive ? "error_apply_occupied" : "error_occupied");
      EXPECT_EQ(line, 0);
    });
  }
}

TEST(Lock, HandlersThatReadShareItAndOneThatWritesIsAlone) {
  RunRequest(Get(""), "", [] {
    Form first(kLock), second(kLock), writer(kLock);
    EXPECT_TRUE(first.ShLock());
    EXPECT_TRUE(second.ShLock());
    EXPECT_FALSE(writer.ExLock());
  });
}

TEST(Lock, WhatCannotBeOpenedGivesNoDescriptor) {
  for (const char* path : {"/nowhere/form.lock", "/tmp", ""}) {
    int descriptor = 5;
    EXPECT_FALSE(ServerFormHandler::LockFile(path, true, &descriptor));
    EXPECT_EQ(descriptor, -1);
  }
}

TEST(Lock, AFifoDoesNotHoldTheProgram) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  int descriptor = -1;
  EXPECT_TRUE(ServerFormHandler::LockFile("/tmp/fifo", true, &descriptor));
}

TEST(Lock, AnotherProcessIsToldAtOnce) {
  const int held = open(kLock, O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const auto run = [](const std::function<bool(Form&)>& lock) {
    return RunRequest(Get(""), "",
                      [&] {
                        Form form(kLock);
                        if (lock(form)) _exit(1);
                        form.ReportError();
                      })
        .body;
  };
  EXPECT_NE(
      run([](Form& form) { return form.ExLock(); }).find(Errinfo("common", "error_apply_occupied")),
      std::string::npos);
  EXPECT_NE(run([](Form& form) { return form.ShLock(); }).find(Errinfo("common", "error_occupied")),
            std::string::npos);
}

TEST(Lock, WithoutAPathNothingIsRecorded) {
  EXPECT_NE(Output("",
                   [](Form& form) {
                     if (form.ExLock() || form.ShLock()) _exit(1);
                     form.ReportError();
                   })
                .find(Errinfo("common", "error_system")),
            std::string::npos);
}

TEST(Lock, IsReleasedWithTheHandler) {
  const Answer answer = RunRequest(Get(""), "", [] {
    {
      Form form(kLock);
      if (!form.ExLock()) _exit(1);
    }
    Form next(kLock);
    if (!next.ExLock()) _exit(2);
    if (!next.ShLock()) _exit(3);  // its own lock does not refuse it
  });
  EXPECT_EQ(answer.exit_status, 0);
}

// The list of rules.

void Declare(FormValidator& fields) {
  static const char* modes[] = {"a", "b", "unused"};
  static int speeds[] = {1, 2, 3};
  fields.AddTextField("text", false);
  fields.AddTextField("short", 3, true);
  fields.AddDateTimeField("date", nullptr);
  fields.AddDateTimeField("time", "%H:%M");
  fields.AddNumberField("number", 1, 9);
  fields.AddStringList("mode", modes, 2);
  fields.AddStringList("kind", std::vector<std::string>{"x", "y"});
  fields.AddIPV4("ip");
  fields.AddIPV4Mask("mask");
  fields.AddIntegerList("speed", speeds, 2);
}

constexpr char kGood[] =
    "text=t&short=&date=2024/1/2&time=1:2&number=5&mode=b&kind=y&ip=1.2.3.4&mask=255.0.0.0&speed=2";

bool ValidRequest(const std::string& query, bool skip_absent) {
  return RunRequest(Get(query), "", [&] {
           WebMan request(true);
           FormValidator fields(skip_absent);
           Declare(fields);
           _exit(fields.Validate(request) ? 0 : 1);
         }).exit_status == 0;
}

TEST(Validator, EveryKindOfFieldIsChecked) {
  EXPECT_TRUE(ValidRequest(kGood, false));
  const char* bad[] = {"text=",       "short=long", "date=x", "time=25:00",   "number=10",
                       "mode=unused", "kind=z",     "ip=x",   "mask=1.2.3.4", "speed=3"};
  for (const char* field : bad) {
    EXPECT_FALSE(ValidRequest(std::string(field) + "&" + kGood, false)) << field;
    EXPECT_FALSE(ValidRequest(field, true)) << field;
  }
}

TEST(Validator, AbsentFieldsAreAnErrorUnlessTheyAreSkipped) {
  EXPECT_FALSE(ValidRequest("", false));
  EXPECT_TRUE(ValidRequest("", true));
  EXPECT_FALSE(ValidRequest("{\"text\":\"t\"}", false));  // JSON has no fields
  EXPECT_TRUE(ValidRequest("{\"text\":\"t\"}", true));
}

TEST(Validator, KeepsCopiesOfWhatItWasGiven) {
  RunRequest(Get("mode=a&kind=x&speed=1&date=2024/1/2"), "", [] {
    WebMan request(true);
    FormValidator fields;
    {
      std::string name = "mode", value = "a", format = "%Y/%m/%d";
      const char* modes[] = {value.c_str()};
      int speeds[] = {1};
      std::vector<std::string> kinds = {"x"};
      fields.AddStringList(name.c_str(), modes, 1);
      fields.AddStringList("kind", kinds);
      fields.AddIntegerList("speed", speeds, 1);
      fields.AddDateTimeField("date", format.c_str());
      name = "none", value = "b", format = "%H:%M", modes[0] = "b", speeds[0] = 2, kinds[0] = "y";
    }
    EXPECT_TRUE(fields.Validate(request));
  });
}

TEST(Validator, AnEmptyListAcceptsAnything) {
  EXPECT_EQ(Output("a=1",
                   [](Form& form) {
                     FormValidator fields;
                     std::printf("%d", fields.Validate(form));
                     std::printf("%d", fields.Validate(form.request()));
                   }),
            "11");
}

class MarksTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("mkdir -p /usr/vemo/vemoman/webman/texts/enu"), 0);
    std::ofstream("/usr/vemo/vemoman/webman/texts/enu/strings")
        << "[error]\nerror_field_too_long = \"Too long for _CRATESERVER_.\"\n";
  }
};

TEST_F(MarksTest, EveryFailingFieldIsMarked) {
  const std::string output = Output("short=long&number=0", [](Form& form) {
    FormValidator fields;
    fields.AddTextField("short", 3, true);
    fields.AddNumberField("number", 1, 9);
    fields.AddIPV4("ip");
    fields.AddIPV4("ip2");
    if (fields.Validate(form)) _exit(1);
    form.ReportError();
  });
  EXPECT_EQ(output, std::string(kHead) +
                        "{\n   \"errors\" : {\n      \"ip\" : \"The field is not present.\",\n"
                        "      \"ip2\" : \"The field is not present.\",\n"
                        "      \"number\" : \"The field is not valid.\",\n"
                        "      \"short\" : \"Too long for CrateServer.\"\n   },\n"
                        "   \"success\" : false\n}\n");
}

TEST_F(MarksTest, AbsentFieldsAreSkippedWhenTheListSaysSo) {
  const std::string output = Output("text=&number=5", [](Form& form) {
    FormValidator fields(true);
    fields.AddIPV4("ip");
    fields.AddTextField("text", 3, false);
    fields.AddNumberField("number", 1, 9);
    EXPECT_FALSE(fields.Validate(form));
    form.ReportError();
  });
  EXPECT_EQ(output, std::string(kHead) +
                        "{\n   \"errors\" : {\n      \"text\" : \"The field is not valid.\"\n"
                        "   },\n   \"success\" : false\n}\n");
  EXPECT_EQ(Output("number=5",
                   [](Form& form) {
                     FormValidator fields(true);
                     fields.AddIPV4("ip");
                     fields.AddNumberField("number", 1, 9);
                     EXPECT_TRUE(fields.Validate(form));
                     EXPECT_FALSE(form.HasInvalidFields());
                   }),
            "");
}

TEST_F(MarksTest, OfAFieldDeclaredTwiceTheLaterMarkStays) {
  const std::string output = Output("f=long", [](Form& form) {
    FormValidator fields;
    fields.AddTextField("f", 3, true);
    fields.AddNumberField("f", 1, 9);
    fields.AddTextField("f", 100, true);
    if (fields.Validate(form)) _exit(1);
    form.ReportError();
  });
  EXPECT_NE(output.find("\"f\" : \"The field is not valid.\""), std::string::npos);
}

TEST_F(MarksTest, AnErrorRecordedBeforeKeepsMarksAway) {
  const std::string output = Output("", [](Form& form) {
    form.SetFormErrInfo("s", "k", 0);
    FormValidator fields;
    fields.AddIPV4("ip");
    if (fields.Validate(form)) _exit(1);
    form.ReportError();
  });
  EXPECT_NE(output.find(Errinfo("s", "k")), std::string::npos);
}

TEST_F(MarksTest, AMissingTextIsEmpty) {
  unlink("/usr/vemo/vemoman/webman/texts/enu/strings");
  const std::string output = Output("short=long", [](Form& form) {
    FormValidator fields;
    fields.AddTextField("short", 3, true);
    fields.Validate(form);
    form.ReportError();
  });
  EXPECT_NE(output.find("\"short\" : \"\""), std::string::npos);
}

}  // namespace
