// Formats and recorded values of the command-line service. mvpn-contract-test has arguments and handlers.
#include "platform/cli.h"

#include <functional>

#include "platform/reference/cli.h"
#include "platform/reference/testing/runtime.h"
#include "tests/reference_services/services_test.h"

namespace {

using Texts = std::vector<std::string>;

class Sink : public ref::CliSink {
 public:
  void text(std::string_view text) override { printed.append(text); }
  void value(const ref::CliValue &value) override { values.push_back(value); }
  std::string printed;
  std::vector<ref::CliValue> values;
};

std::function<int(cli_command *)> body;
int handler(cli_command *command) { return body(command); }

class CliTest : public ServicesTest {
 protected:
  int run(std::vector<ref::CliArgument> arguments, std::function<int(cli_command *)> what) {
    cli_register_cmd("test_cmd", handler, 0);
    body = std::move(what);
    ref::CliInvocation invocation;
    invocation.handler = "test_cmd";
    invocation.arguments = std::move(arguments);
    invocation.vrf_name = "red";
    return ref::cli_invoke(invocation, sink);
  }
  // "element:text" of each recorded value.
  Texts recorded() const {
    Texts all;
    for (const ref::CliValue &value : sink.values) all.push_back(std::to_string(value.element) + ":" + value.text);
    return all;
  }
  Sink sink;
};

TEST_F(CliTest, ValuesAreTakenByConversionAndLengthModifier) {
  run({}, [](cli_command *command) {
    cli_new_printf(command, "%-8s|%5.2f%%|%hhd|%hd|%d|%ld|%lld|%zu|%u|%lx|%llu|%c|%s\n", "red", 2.5, -1, -2, -3,
                   -4000000000L, -5000000000LL, sizeof(int), 4294967295u, 0xFFFFFFFFFFul, 18446744073709551615ull, 'x',
                   "end", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13);
    return 0;
  });
  EXPECT_EQ(sink.printed,
            "red     | 2.50%|-1|-2|-3|-4000000000|-5000000000|4|4294967295|ffffffffff|18446744073709551615|x|end\n");
  EXPECT_EQ(recorded(), (Texts{"1:red", "2:2.500000", "3:-1", "4:-2", "5:-3", "6:-4000000000", "7:-5000000000", "8:4",
                               "9:4294967295", "10:1099511627775", "11:18446744073709551615", "12:x", "13:end"}));
  EXPECT_EQ(sink.values[4].type, ref::CliValueType::number);
  EXPECT_EQ(sink.values[4].number, -3);
  EXPECT_EQ(sink.values[10].type, ref::CliValueType::unsigned_number);
  EXPECT_EQ(sink.values[10].unsigned_number, 18446744073709551615ull);
}

// More integers, and more floating-point numbers, than fit into registers: the ids come from the stack.
TEST_F(CliTest, ManyArgumentsKeepTheirOrder) {
  run({}, [](cli_command *command) {
    cli_xml_output(command, "%d%f%d%f%d%f%d%f%d%f%d%f%d%f%d%f%d%f", 1, 1.5, 2, 2.5, 3, 3.5, 4, 4.5, 5, 5.5, 6, 6.5, 7,
                   7.5, 8, 8.5, 9, 9.5, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28);
    return 0;
  });
  EXPECT_EQ(sink.printed, "");
  ASSERT_EQ(sink.values.size(), 18u);
  EXPECT_EQ(recorded()[16], "27:9");
  EXPECT_EQ(recorded()[17], "28:9.500000");
}

TEST_F(CliTest, ValuesWithoutElementStayOut) {
  run({}, [](cli_command *command) {
    cli_new_printf(command, "%s %% %d %s", "a", 2, static_cast<const char *>(nullptr), 0, 5, 6);
    cli_new_printf(command, "\nno values 100%%");
    cli_xml_boolean(command, 3, 7);
    cli_xml_boolean(command, 1, 0);
    const zeph_timestamp time{65, 500000000};
    cli_xml_duration(command, &time, 0, 8);
    return 0;
  });
  EXPECT_EQ(sink.printed, "a % 2 (null)\nno values 100%");
  EXPECT_EQ(recorded(), (Texts{"5:2", "6:(null)", "7:true", "8:"}));
  EXPECT_DOUBLE_EQ(sink.values[3].seconds, 65.5);
}

TEST_F(CliTest, LongTextIsNotCut) {
  const std::string text(5000, 'x');
  run({}, [&text](cli_command *command) {
    cli_cmd_printf(command, "%s", text.c_str());
    return 0;
  });
  EXPECT_EQ(sink.printed, text);
}

TEST_F(CliTest, ReplayRunsBehindTheHandler) {
  Texts order;
  ref::set_cli_replay([&order](const std::string &vrf) { order.push_back("replay " + vrf); });
  const int result = run({}, [&order](cli_command *) {
    cli_send_my_global_vrf_commands(0, "red");
    order.push_back("handler");
    return CLI_RESULT_REJECTED;
  });
  EXPECT_EQ(result, CLI_RESULT_REJECTED);
  EXPECT_EQ(order, (Texts{"handler"}));
  ref::settle();
  EXPECT_EQ(order, (Texts{"handler", "replay red"}));
  ref::set_cli_replay(nullptr);
}

}  // namespace
