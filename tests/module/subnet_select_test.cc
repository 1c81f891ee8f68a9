// The select of remote subscribers by subnet and by user.
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "tests/module/injection.h"

namespace module_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char SUBNET[] = "tarn_memdb_nl_select_subnetmask";
constexpr char NO_FLAGS[] = "Subnet flag and DN flag are not set\n";
constexpr char NO_USER_FLAGS[] = "DN flag is set but From Flag neither Contact Flag is set\n";
constexpr char UNREADABLE_ADDRESS[] = "inet_pton cannot convert parameter\n";
constexpr size_t COLUMNS = 16;
constexpr size_t LONGEST_DN = 234;

const message START = dbg("Start loop through Remote Subscriber Configuration Table\n");
const message ENTERING =
    dbg("Entering memdb_select for subnet ip match or from or contact user match\n");
const message ENDING = dbg("memdb_select_subnetmask: MATCH FOUND and Saving AVP");
const message SAME_NET = dbg("Same net!\n");
const message OTHER_NET = dbg("Not the same net!\n");
const message MIXED = info("Addresses from different families\n");
const message MIXED_MASK = info("mask from different families\n");
const message INVALID_FAMILY = info("Invalid address family!\n");
const message SAME = dbg("location domain is same\n");
const message SAME_SO_FAR = dbg("location domain is same for from user lets check contact user\n");
const message DIFFERENT = dbg("location domain is different\n");
const message NO_FROM = dbg("From user DN not found in table remote_sub_dn_list\n");
const message NO_CONTACT = dbg("Contact user DN not found in table remote_sub_dn_list\n");

message domain_entry(const std::string &domain) {
  return dbg("Processing location domain entry [" + domain +
             "], length=" + std::to_string(domain.size()) + "\n");
}
message flags(const std::string &subnet, const std::string &from, const std::string &ct,
              const std::string &dn) {
  return dbg("subnet=" + subnet + " from=" + from + " ct=" + ct + " dn=" + dn + "\n");
}
message subnet_entry(const std::string &address) {
  return dbg("Processing entry [" + address + "], length=" + std::to_string(address.size()) + "\n");
}
message bytes(int count) { return dbg("Bytes=" + std::to_string(count) + "\n"); }
message look_up(const std::string &dn) { return dbg("Select: remote_sub_dn_list," + dn + "|*\n"); }
message found_domain(const std::string &domain) {
  return dbg("Found location_domain '" + domain + "'\n");
}
message from_is_set(const std::string &row, const std::string &dn) {
  return dbg("from_f is set. Location_domain row = " + row + "  location domain_dn = " + dn + "\n");
}
message ct_is_set(const std::string &row, const std::string &dn) {
  return dbg("ct_f is set. Location_domain row = " + row + "  location domain_dn = " + dn + "\n");
}

// One row: what the select reads of it.
struct subscriber {
  std::string id;
  std::string domain = "home";
  std::string ip = "";
  std::string mask = "";
  std::string dn = "0";
  std::string subnet = "0";
  std::string from = "0";
  std::string ct = "0";

  std::string line() const {
    return id + "|x|" + domain + "|" + ip + "|" + mask + "|||||||" + "|" + dn + "|" + subnet + "|" +
           from + "|" + ct;
  }
};

subscriber by_net(const std::string &id, const std::string &ip, const std::string &mask) {
  return {id, "home", ip, mask, "0", "1", "0", "0"};
}
subscriber by_user(const std::string &id, const std::string &domain, const std::string &from,
                   const std::string &ct) {
  return {id, domain, "", "", "1", "0", from, ct};
}

std::vector<column> subscriber_columns(unsigned domain_length) {
  std::vector<column> out;
  for (size_t i = 0; i < COLUMNS; i++) out.push_back({"c" + std::to_string(i), 63});
  out[0].indexed = true;
  out[2].length = domain_length;
  return out;
}

table subscribers(int max_rows = 1000, unsigned domain_length = 63) {
  return {"subs", subscriber_columns(domain_length), max_rows};
}
table domains(unsigned length = 63) {
  return {"remote_sub_dn_list", {{"dn", 255}, {"location_domain", length}}};
}

// Catches what the process writes to its standard output.
class stdout_capture {
 public:
  stdout_capture() : file_(tmpfile()), kept_(dup(STDOUT_FILENO)) {
    if (file_ == nullptr || kept_ < 0) throw std::runtime_error("standard output can't be caught");
    fflush(stdout);
    dup2(fileno(file_), STDOUT_FILENO);
  }
  ~stdout_capture() {
    restore();
    fclose(file_);
  }
  stdout_capture(const stdout_capture &) = delete;
  stdout_capture &operator=(const stdout_capture &) = delete;

  // Ends the capture and gives what was written.
  std::string text() {
    restore();
    std::string out;
    char part[512];
    rewind(file_);
    while (const size_t got = fread(part, 1, sizeof(part), file_)) out.append(part, got);
    return out;
  }

 private:
  void restore() {
    if (kept_ < 0) return;
    fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
    kept_ = -1;
  }

  FILE *file_;
  int kept_;
};

class SubnetTest : public InjectionTest {
 protected:
  void start_subscribers(const std::vector<subscriber> &rows, const texts &dns = {}) {
    texts lines;
    for (const subscriber &row : rows) lines.push_back(row.line());
    start_with({subscribers(), domains()}, {{"subs", lines}, {"remote_sub_dn_list", dns}});
  }
  std::string any(const std::string &tail = "") {
    return "subs," + joined(texts(COLUMNS, "*"), "|") + tail;
  }
  // The three last parameters as texts; a variable each, so that they may be empty.
  standin::command prepare(const std::string &query) {
    return fixup(SUBNET, {query, "$avp(id)", "$var(ip)", "$var(from)", "$var(contact)"});
  }
  int select(const std::string &query, const std::string &ip, const std::string &from = "",
             const std::string &contact = "") {
    set_request(ip, from, contact);
    const standin::command prepared = prepare(query);
    clear();
    return call(prepared);
  }
  static void set_request(const std::string &ip, const std::string &from,
                          const std::string &contact) {
    standin::set_var("ip", ip);
    standin::set_var("from", from);
    standin::set_var("contact", contact);
  }
  static texts ids() { return avp_texts("id"); }

  // The messages of one row, between the beginning of the walk and its end.
  std::vector<message> of_rows() {
    std::vector<message> told = messages();
    const auto begin = std::find(told.begin(), told.end(), START);
    const auto end = std::find(told.begin(), told.end(), ENDING);
    return begin < end ? std::vector<message>(begin + 1, end) : std::vector<message>();
  }
};

// Whole traces.

TEST_F(SubnetTest, TellsEveryStepOfAMatchBySubnet) {
  start_subscribers(
      {by_net("b", "10.1.0.0", "255.255.0.0"), by_net("a", "10.9.0.0", "255.255.0.0")});
  EXPECT_EQ(select(any(), "10.1.2.3", "alice"), 1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Select: " + any() + "\n"), dbg("Received Source IP = 10.1.2.3\n"),
                  dbg("Received From user = alice\n"), dbg("Contact user not received\n"), START,
                  ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                  subnet_entry("10.9.0.0"), bytes(4), OTHER_NET, ENTERING, domain_entry("home"),
                  flags("1", "0", "0", "0"), subnet_entry("10.1.0.0"), bytes(4), SAME_NET, ENDING));
  EXPECT_THAT(ids(), ElementsAre("b"));
}

TEST_F(SubnetTest, TellsEveryStepOfAMatchByBothUsers) {
  start_subscribers({by_user("a", "home", "1", "1")}, {"alice|home", "bob|home"});
  EXPECT_EQ(select(any(",3"), "10.1.2.3", "alice", "bob"), 1);
  EXPECT_THAT(
      messages(),
      ElementsAre(dbg("Select: " + any(",3") + "\n"), dbg("Received Source IP = 10.1.2.3\n"),
                  dbg("Received From user = alice\n"), dbg("Received Contact user = bob\n"), START,
                  ENTERING, domain_entry("home"), flags("0", "1", "1", "1"), look_up("alice"),
                  found_domain("home"), from_is_set("home", "home"), SAME_SO_FAR, look_up("bob"),
                  found_domain("home"), ct_is_set("home", "home"), SAME, ENDING));
  EXPECT_THAT(ids(), ElementsAre("a"));
}

TEST_F(SubnetTest, WritesItsEndingLineWithoutAMatchToo) {
  start_subscribers({});
  EXPECT_EQ(select(any(), "10.1.2.3"), -2);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: " + any() + "\n"), dbg("Received Source IP = 10.1.2.3\n"),
                          dbg("From user not received\n"), dbg("Contact user not received\n"),
                          START, ENDING));
}

// The subnet test.

TEST_F(SubnetTest, MatchesAnAddressOfTheNet) {
  start_subscribers({by_net("a", "10.1.0.0", "255.255.0.0")});
  EXPECT_EQ(select(any(), "10.1.2.3"), 1);
  EXPECT_EQ(select(any(), "10.1.255.255"), 1);
  EXPECT_EQ(select(any(), "10.2.0.0"), -2);
  EXPECT_EQ(select(any(), "11.1.0.0"), -2);
}

TEST_F(SubnetTest, ComparesTheLastBitOfTheMask) {
  start_subscribers({by_net("a", "10.1.2.4", "255.255.255.252")});
  EXPECT_EQ(select(any(), "10.1.2.7"), 1);
  EXPECT_EQ(select(any(), "10.1.2.8"), -2);
}

TEST_F(SubnetTest, LooksAtTheHostBitsOfTheRowNoMoreThanTheMaskSays) {
  start_subscribers({by_net("a", "10.1.99.99", "255.255.0.0")});
  EXPECT_EQ(select(any(), "10.1.2.3"), 1);
}

TEST_F(SubnetTest, MatchesAnyAddressOfTheFamilyWithAMaskOfZeros) {
  start_subscribers({by_net("a", "10.1.0.0", "0.0.0.0")});
  EXPECT_EQ(select(any(), "203.0.113.9"), 1);
}

TEST_F(SubnetTest, MatchesOneAddressWithAMaskOfOnes) {
  start_subscribers({by_net("a", "10.1.2.3", "255.255.255.255")});
  EXPECT_EQ(select(any(), "10.1.2.3"), 1);
  EXPECT_EQ(select(any(), "10.1.2.2"), -2);
}

TEST_F(SubnetTest, ComparesIpv6AddressesOver16Bytes) {
  start_subscribers({by_net("a", "2001:db8:1::", "ffff:ffff:ffff::")});
  EXPECT_EQ(select(any(), "2001:db8:1:2::3"), 1);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                                     subnet_entry("2001:db8:1::"), bytes(16), SAME_NET));
  EXPECT_EQ(select(any(), "2001:db8:2::1"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                                     subnet_entry("2001:db8:1::"), bytes(16), OTHER_NET));
}

TEST_F(SubnetTest, ComparesTheLastByteOfIpv6Addresses) {
  const std::string ones = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
  start_subscribers({by_net("a", "2001:db8::1", ones)});
  EXPECT_EQ(select(any(), "2001:db8::1"), 1);
  EXPECT_EQ(select(any(), "2001:db8:0:0:0:0:0:1"), 1) << "another way of writing it";
  EXPECT_EQ(select(any(), "2001:db8::2"), -2);
}

TEST_F(SubnetTest, TakesAMappedAddressForIpv6) {
  start_subscribers({by_net("a", "::ffff:10.1.0.0", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:0")});
  EXPECT_EQ(select(any(), "::ffff:10.1.2.3"), 1);
  EXPECT_THAT(messages(), Contains(bytes(16)));
}

TEST_F(SubnetTest, ComparesFourBytesOfAnIpv6RowWithAnIpv4Source) {
  // The four bytes are 32, 1, 13 and 184.
  start_subscribers({by_net("a", "2001:db8::", "ffff:ffff::")});
  EXPECT_EQ(select(any(), "32.1.13.184"), 1);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                          subnet_entry("2001:db8::"), MIXED, MIXED_MASK, bytes(4), SAME_NET));
  EXPECT_EQ(select(any(), "32.1.13.185"), -2);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(MIXED, MIXED_MASK));
}

TEST_F(SubnetTest, ComparesAnIpv4RowWithAnIpv6SourceAsIfZerosFollowed) {
  start_subscribers({by_net("a", "32.1.13.184", "255.255.255.255")});
  EXPECT_EQ(select(any(), "2001:db8::"), 1) << "the mask's tail is zero, so it takes no part";
  EXPECT_EQ(select(any(), "2001:db8:1::"), 1);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                          subnet_entry("32.1.13.184"), MIXED, MIXED_MASK, bytes(16), SAME_NET));
  EXPECT_EQ(select(any(), "2001:db9::"), -2);
}

TEST_F(SubnetTest, ComparesTheZerosBehindAnIpv4RowUnderAnIpv6Mask) {
  start_subscribers({by_net("a", "32.1.13.184", "ffff:ffff:ffff::")});
  EXPECT_EQ(select(any(), "2001:db8:0:5::"), 1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(MIXED));
  EXPECT_EQ(select(any(), "2001:db8:1::"), -2);
}

TEST_F(SubnetTest, TellsAMaskOfAnotherFamilyAlone) {
  start_subscribers({by_net("a", "10.1.0.0", "ffff::")});
  EXPECT_EQ(select(any(), "10.1.9.9"), 1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(MIXED_MASK));
  EXPECT_EQ(select(any(), "10.2.9.9"), -2);
}

TEST_F(SubnetTest, ReadsAnUnreadableSubnetAsZerosAndTellsItOnStandardOutput) {
  start_subscribers({by_net("a", "10.1.0", "255.255.0.0")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "10.1.2.3"), -2);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(MIXED));
  EXPECT_EQ(select(any(), "0.0.7.7"), 1);
  EXPECT_EQ(caught.text(), repeated(UNREADABLE_ADDRESS, 2));
  EXPECT_FALSE(standin::log_contains(INFO_LEVEL, "inet_pton")) << "it isn't logged";
}

TEST_F(SubnetTest, ReadsAnUnreadableMaskAsZerosWhichAnyAddressPasses) {
  start_subscribers({by_net("a", "10.1.0.0", "/16")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "203.0.113.9"), 1);
  EXPECT_EQ(caught.text(), UNREADABLE_ADDRESS);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(MIXED_MASK));
}

TEST_F(SubnetTest, ReadsAnEmptyMaskAsZeros) {
  start_subscribers({by_net("a", "10.1.0.0", "")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "203.0.113.9"), 1);
  EXPECT_EQ(caught.text(), UNREADABLE_ADDRESS);
}

TEST_F(SubnetTest, MatchesNoRowFromAnUnreadableSource) {
  start_subscribers({by_net("a", "10.1.0.0", "0.0.0.0"), by_net("b", "bad", "bad")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "300.1.2.3"), -2);
  // Of one row the source, of the other all three, the row visited first being the second.
  EXPECT_EQ(caught.text(), repeated(UNREADABLE_ADDRESS, 4));
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(INVALID_FAMILY, MIXED, MIXED_MASK, INVALID_FAMILY));
  EXPECT_THAT(messages(), testing::Not(Contains(SAME_NET)));
}

TEST_F(SubnetTest, TakesBlanksPortsAndPrefixesForUnreadable) {
  start_subscribers({by_net("a", "10.1.0.0", "0.0.0.0")});
  for (const char *source :
       {" 10.1.2.3", "10.1.2.3 ", "10.1.2.3:5060", "10.1.2.3/24", "[2001:db8::1]", "0x0a010203",
        "10.1.2", "localhost", "2001:db8::1::2", "fe80::1%eth0"}) {
    stdout_capture caught;
    EXPECT_EQ(select(any(), source), -2) << source;
    EXPECT_EQ(caught.text(), UNREADABLE_ADDRESS) << source;
  }
}

TEST_F(SubnetTest, ConvertsTheSourceAnewForEachRow) {
  start_subscribers({by_net("a", "10.1.0.0", "255.0.0.0"), by_net("b", "10.1.0.0", "255.0.0.0"),
                     by_net("c", "10.1.0.0", "255.0.0.0")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "nowhere"), -2);
  EXPECT_EQ(caught.text(), repeated(UNREADABLE_ADDRESS, 3));
}

TEST_F(SubnetTest, PassesOverARowWithoutASubnet) {
  start_subscribers({by_net("a", "", "0.0.0.0")});
  stdout_capture caught;
  EXPECT_EQ(select(any(), "not even an address"), -2);
  EXPECT_EQ(caught.text(), "");
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("1", "0", "0", "0"),
                                     dbg("Subnet ip is empty, ignoring this row\n")));
}

// The decision table.

TEST_F(SubnetTest, LetsTheSubnetFlagOverrideEveryOther) {
  for (const char *dn : {"0", "1"}) {
    for (const char *from : {"0", "1", "2"}) {
      for (const char *ct : {"0", "1", "2"}) {
        start_subscribers({{"a", "home", "10.1.0.0", "255.255.0.0", dn, "1", from, ct}},
                          {"alice|home"});
        EXPECT_EQ(select(any(), "10.1.2.3"), 1);
        EXPECT_EQ(select(any(), "10.2.2.3", "alice", "alice"), -2) << "the users take no part";
        EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
        forget_view();
        unload();
        load();
      }
    }
  }
  start_subscribers({});
}

TEST_F(SubnetTest, PassesOverARowWithNeitherFlagAndTellsIt) {
  for (const char *subnet : {"0", "2", "", "-1"}) {
    for (const char *dn : {"0", "2", ""}) {
      start_subscribers({by_net("next", "10.1.0.0", "255.255.0.0"),
                         {"a", "home", "10.1.0.0", "255.255.0.0", dn, subnet, "1", "1"}},
                        {"alice|home"});
      EXPECT_EQ(select(any(), "10.1.2.3", "alice", "alice"), 1);
      EXPECT_THAT(ids(), ElementsAre("next")) << "the scan goes on";
      EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(NO_FLAGS)));
      forget_view();
      unload();
      load();
    }
  }
  start_subscribers({});
}

TEST_F(SubnetTest, ChecksTheFromUserAloneForFromAndNoContact) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|home", "bob|other"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice", "bob"), 1);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "0", "1"),
                                     look_up("alice"), found_domain("home"),
                                     from_is_set("home", "home"), SAME));
  EXPECT_EQ(select(any(), "1.1.1.1", "bob", "alice"), -2);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "0", "1"), look_up("bob"),
                          found_domain("other"), from_is_set("home", "other"), DIFFERENT));
}

TEST_F(SubnetTest, ChecksTheContactUserAloneForContactAndNoFrom) {
  start_subscribers({by_user("a", "home", "0", "1")}, {"alice|home", "bob|other"});
  EXPECT_EQ(select(any(), "1.1.1.1", "bob", "alice"), 1);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("0", "0", "1", "1"),
                          look_up("alice"), found_domain("home"), ct_is_set("home", "home"), SAME));
  EXPECT_EQ(select(any(), "1.1.1.1", "alice", "bob"), -2);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("0", "0", "1", "1"), look_up("bob"),
                          found_domain("other"), ct_is_set("home", "other"), DIFFERENT));
}

TEST_F(SubnetTest, WantsBothUsersInTheRowsDomainForFromAndContact) {
  start_subscribers({by_user("a", "home", "1", "1")}, {"alice|home", "bob|other", "carol|home"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice", "carol"), 1);
  EXPECT_EQ(select(any(), "1.1.1.1", "alice", "bob"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "1", "1"),
                                     look_up("alice"), found_domain("home"),
                                     from_is_set("home", "home"), SAME_SO_FAR, look_up("bob"),
                                     found_domain("other"), ct_is_set("home", "other"), DIFFERENT));
}

TEST_F(SubnetTest, DoesNotLookAtTheContactUserBehindAFromUserThatFails) {
  start_subscribers({by_user("a", "home", "1", "1")}, {"alice|home", "bob|other"});
  EXPECT_EQ(select(any(), "1.1.1.1", "bob", "alice"), -2);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "1", "1"), look_up("bob"),
                          found_domain("other"), from_is_set("home", "other"), DIFFERENT));
  EXPECT_EQ(select(any(), "1.1.1.1", "nobody", "alice"), -2);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "1", "1"),
                          look_up("nobody"), dbg("No match found for DN = 'nobody'\n"), NO_FROM));
}

TEST_F(SubnetTest, PassesOverADnRowWithAnyOtherFlagsAndTellsIt) {
  const std::vector<std::pair<std::string, std::string>> others = {
      {"0", "0"}, {"", ""},   {"2", "0"}, {"0", "2"},
      {"1", "2"}, {"2", "1"}, {"2", "2"}, {"-1", "1"}};
  for (const auto &[from, ct] : others) {
    start_subscribers({by_user("next", "home", "1", "0"), by_user("a", "home", from, ct)},
                      {"alice|home"});
    EXPECT_EQ(select(any(), "1.1.1.1", "alice", "alice"), 1);
    EXPECT_THAT(ids(), ElementsAre("next")) << from << " " << ct;
    EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(NO_USER_FLAGS)));
    forget_view();
    unload();
    load();
  }
  start_subscribers({});
}

TEST_F(SubnetTest, TakesARowWithAnotherSubnetFlagForADnRow) {
  start_subscribers({{"a", "home", "10.1.0.0", "255.255.0.0", "1", "2", "1", "0"}}, {"alice|home"});
  EXPECT_EQ(select(any(), "10.1.2.3"), -2);
  EXPECT_EQ(select(any(), "203.0.113.9", "alice"), 1);
  EXPECT_THAT(messages(), Contains(flags("2", "1", "0", "1")));
}

TEST_F(SubnetTest, ReadsFlagsAsNumbers) {
  start_subscribers({{"a", "home", "10.1.0.0", "255.255.0.0", "", " 01x", "", ""}});
  EXPECT_EQ(select(any(), "10.1.2.3"), 1);
}

// Users and domains.

TEST_F(SubnetTest, DoesNotLookUpAnEmptyUser) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|home"});
  EXPECT_EQ(select(any(), "1.1.1.1"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "0", "1"),
                                     dbg("Invalid DN\n"), NO_FROM));
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

TEST_F(SubnetTest, DoesNotLookUpAnEmptyContactUser) {
  start_subscribers({by_user("a", "home", "0", "1")}, {"alice|home"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("0", "0", "1", "1"),
                                     dbg("Invalid DN\n"), NO_CONTACT));
}

TEST_F(SubnetTest, SaysNothingOfAUserWhoseDomainIsEmpty) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, domain_entry("home"), flags("0", "1", "0", "1"),
                                     look_up("alice"), NO_FROM));
}

TEST_F(SubnetTest, NeverMatchesARowWithoutADomain) {
  start_subscribers({by_user("a", "", "1", "0")}, {"alice|home", "bob|"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(of_rows(), ElementsAre(ENTERING, info("Invalid location domain!\n"),
                                     flags("0", "1", "0", "1"), look_up("alice"),
                                     found_domain("home"), from_is_set("", "home"), DIFFERENT));
  EXPECT_EQ(select(any(), "1.1.1.1", "bob"), -2);
}

TEST_F(SubnetTest, StillMatchesARowWithoutADomainBySubnet) {
  start_subscribers({{"a", "", "10.1.0.0", "255.255.0.0", "0", "1", "0", "0"}});
  EXPECT_EQ(select(any(), "10.1.2.3"), 1);
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(info("Invalid location domain!\n")));
}

TEST_F(SubnetTest, TakesTheNewestRowOfAUserAlone) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|home", "alice|other"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(messages(), Contains(found_domain("other")));
}

TEST_F(SubnetTest, ComparesDomainsWholeAndToTheLetter) {
  start_subscribers({by_user("a", "home.example", "1", "0")},
                    {"alice|home", "bob|Home.example", "carol|home.example"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_EQ(select(any(), "1.1.1.1", "bob"), -2);
  EXPECT_EQ(select(any(), "1.1.1.1", "carol"), 1);
}

TEST_F(SubnetTest, LooksUsersUpAnewForEachRow) {
  start_subscribers({by_user("a", "x", "1", "0"), by_user("b", "y", "1", "0")}, {"alice|home"});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(of_rows(),
              ElementsAre(ENTERING, domain_entry("y"), flags("0", "1", "0", "1"), look_up("alice"),
                          found_domain("home"), from_is_set("y", "home"), DIFFERENT, ENTERING,
                          domain_entry("x"), flags("0", "1", "0", "1"), look_up("alice"),
                          found_domain("home"), from_is_set("x", "home"), DIFFERENT));
}

TEST_F(SubnetTest, PutsAUserIntoTheLookUpAsItIs) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|home", "a\\,b|home", "c\\|d|home"});
  EXPECT_EQ(select(any(), "1.1.1.1", "*"), 1) << "a wildcard";
  EXPECT_EQ(select(any(), "1.1.1.1", "a\\,b"), 1) << "an escaped comma";
  EXPECT_EQ(select(any(), "1.1.1.1", "a,b"), -2);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Size mismatch"),
                          err("Wrong number of fields in field list: remote_sub_dn_list,a,b|* | "
                              "b|*\n"),
                          err("Could not parse query (remote_sub_dn_list,a,b|*) for select\n")));
  EXPECT_THAT(messages(), Contains(NO_FROM));
  EXPECT_EQ(select(any(), "1.1.1.1", "c|d"), -2);
  EXPECT_THAT(messages(), Contains(NO_FROM));
  EXPECT_EQ(select(any(), "1.1.1.1", "alice|home,1,"), 1) << "separators complete the query";
}

TEST_F(SubnetTest, LooksUpAUserOf234CharactersAndNoLongerOne) {
  const std::string fits(LONGEST_DN, 'u');
  start_subscribers({by_user("a", "home", "1", "0")}, {fits + "|home", fits + "u|home"});
  EXPECT_EQ(select(any(), "1.1.1.1", fits), 1);
  EXPECT_EQ(select(any(), "1.1.1.1", fits + "u"), -2);
  ASSERT_THAT(messages(INFO_LEVEL), SizeIs(1));
  EXPECT_EQ(messages(INFO_LEVEL)[0].level, ERR_LEVEL);
  EXPECT_EQ(of_rows().back(), NO_FROM);
  EXPECT_EQ(select(any(), "1.1.1.1", std::string(255, 'u')), -2);
  EXPECT_THAT(messages(INFO_LEVEL), SizeIs(1));
}

TEST_F(SubnetTest, CutsALongDomainToItsBuffer) {
  const std::string longest(255, 'd');
  texts rows;
  for (const std::string &domain : {longest, longest + "d"})
    rows.push_back(by_user("a" + std::to_string(domain.size()), domain, "1", "0").line());
  start_with({subscribers(100, 300), domains(300)},
             {{"subs", rows}, {"remote_sub_dn_list", {"alice|" + longest + "dddd"}}});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), 1);
  EXPECT_THAT(ids(), ElementsAre("a255"));
  EXPECT_THAT(messages(), Contains(found_domain(longest + "dddd")));
  EXPECT_THAT(messages(), Contains(from_is_set(longest + "d", longest)));
}

TEST_F(SubnetTest, GoesOnWithoutTheTableOfUsers) {
  texts rows = {by_net("net", "10.1.0.0", "255.255.0.0").line(),
                by_user("user", "home", "1", "1").line()};
  start_with({subscribers()}, {{"subs", rows}});
  EXPECT_EQ(select(any(), "10.1.2.3", "alice", "alice"), 1);
  EXPECT_THAT(ids(), ElementsAre("net"));
  EXPECT_THAT(
      messages(INFO_LEVEL),
      ElementsAre(err("Table 'remote_sub_dn_list' was not found\n"), err("Table not found\n"),
                  err("Could not parse query (remote_sub_dn_list,alice|*) for select\n")));
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
}

TEST_F(SubnetTest, GoesOnWithATableOfUsersOfAnotherWidth) {
  start_with({subscribers(), {"remote_sub_dn_list", {{"a"}, {"b"}, {"c"}}}},
             {{"subs", {by_user("user", "home", "1", "0").line()}}});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Size mismatch"), testing::_,
                          err("Could not parse query (remote_sub_dn_list,alice|*) for select\n")));
}

TEST_F(SubnetTest, FindsNoDomainInATableOfUsersOfOneColumn) {
  start_with(
      {subscribers(), {"remote_sub_dn_list", {{"dn"}}}},
      {{"subs", {by_user("user", "home", "1", "0").line()}}, {"remote_sub_dn_list", {"alice"}}});
  EXPECT_EQ(select(any(), "1.1.1.1", "alice"), -2);
  EXPECT_EQ(select(any(), "1.1.1.1", "alice,"), -2) << "a comma makes the query fit";
  EXPECT_THAT(messages(INFO_LEVEL), IsEmpty());
}

// The walk.

TEST_F(SubnetTest, DeliversTheFirstRowThatMatchesAndVisitsNoFurther) {
  start_subscribers({by_net("oldest", "10.1.0.0", "255.255.0.0"),
                     by_net("middle", "10.1.0.0", "255.255.0.0"),
                     by_net("newest", "10.2.0.0", "255.255.0.0")});
  EXPECT_EQ(select(any(",10"), "10.1.2.3"), 1);
  EXPECT_THAT(ids(), ElementsAre("middle"));
  size_t visits = 0;
  for (const message &told : messages()) visits += told == ENTERING ? 1 : 0;
  EXPECT_EQ(visits, 2U);
}

TEST_F(SubnetTest, StopsAfterMaxResRowsVisited) {
  start_subscribers({by_net("oldest", "10.1.0.0", "255.255.0.0"),
                     by_net("middle", "10.2.0.0", "255.255.0.0"),
                     by_net("newest", "10.3.0.0", "255.255.0.0")});
  EXPECT_EQ(select(any(",2"), "10.1.2.3"), -2);
  EXPECT_EQ(select(any(",3"), "10.1.2.3"), 1);
}

TEST_F(SubnetTest, VisitsAsManyRowsAsTheTableMayHoldWithoutALimitAndNoFixedNumber) {
  texts rows(700, by_net("x", "10.2.0.0", "255.255.0.0").line());
  rows[0] = by_net("oldest", "10.1.0.0", "255.255.0.0").line();
  rows[1] = by_net("second", "10.9.0.0", "255.255.0.0").line();
  start_with({subscribers(699)}, {{"subs", rows}});
  standin::set_debug_level(INFO_LEVEL);
  EXPECT_EQ(select(any(), "10.9.2.3"), 1);
  EXPECT_EQ(select(any(), "10.1.2.3"), -2) << "a table loaded beyond its limit";
  EXPECT_EQ(select(any(",700"), "10.1.2.3"), 1);
}

TEST_F(SubnetTest, FiltersByTheFieldsOfTheQuery) {
  start_subscribers({by_net("a", "10.1.0.0", "255.255.0.0"), by_net("b", "10.1.0.0", "255.0.0.0")});
  EXPECT_EQ(select("subs,a" + repeated("|*", COLUMNS - 1), "10.9.9.9"), -2);
  EXPECT_EQ(select("subs,b" + repeated("|*", COLUMNS - 1), "10.9.9.9"), 1);
  EXPECT_THAT(ids(), ElementsAre("b"));
}

TEST_F(SubnetTest, DeliversEveryColumnOfTheRow) {
  start_subscribers({by_net("a", "10.1.0.0", "255.255.0.0")});
  texts names;
  for (size_t i = 0; i < COLUMNS; i++) names.push_back("$avp(c" + std::to_string(i) + ")");
  set_request("10.1.2.3", "", "");
  EXPECT_EQ(run(SUBNET, {any(), joined(names, "|"), "$var(ip)", "$var(from)", "$var(contact)"}), 1);
  EXPECT_EQ(standin::avp_count(), COLUMNS);
  EXPECT_THAT(avp_texts("c3"), ElementsAre("10.1.0.0"));
  EXPECT_THAT(avp_texts("c13"), ElementsAre("1"));
  EXPECT_THAT(standin::avp("c5"), ElementsAre(value("")));
}

TEST_F(SubnetTest, WorksOnATableWithMoreColumns) {
  std::vector<column> columns = subscriber_columns(63);
  columns.push_back({"c16", 63});
  start_with({{"wide", columns}},
             {{"wide", {by_net("a", "10.1.0.0", "255.255.0.0").line() + "|more"}}});
  EXPECT_EQ(select("wide," + joined(texts(COLUMNS + 1, "*"), "|"), "10.1.2.3"), 1);
}

// Refusals and failures, none of which ends with "SELECT failed!".

TEST_F(SubnetTest, RefusesATableOfFewerThan16Columns) {
  std::vector<column> columns = subscriber_columns(63);
  columns.pop_back();
  std::string line = by_net("a", "10.1.0.0", "255.255.0.0").line();
  line = line.substr(0, line.rfind('|'));
  start_with({{"narrow", columns}}, {{"narrow", {line}}});
  EXPECT_EQ(select("narrow," + joined(texts(COLUMNS - 1, "*"), "|"), "10.1.2.3"), -1);
  ASSERT_THAT(messages(INFO_LEVEL), SizeIs(1));
  EXPECT_EQ(messages(INFO_LEVEL)[0].level, ERR_LEVEL);
  EXPECT_EQ(standin::avp_count(), 0U);
}

TEST_F(SubnetTest, RefusesAMissingParameterBeforeAnythingElse) {
  start_subscribers({by_net("a", "10.1.0.0", "255.255.0.0")});
  set_request("10.1.2.3", "", "");
  const standin::command prepared = prepare("nowhere,x");
  for (const size_t slot : {size_t{3}, size_t{4}, size_t{5}}) {
    clear();
    standin::reset_calls();
    EXPECT_EQ(call_with_null(prepared, slot), -2);
    EXPECT_THAT(messages(), ElementsAre(err("Bad parameters\n")));
    EXPECT_EQ(standin::calls("pv_printf"), 0);
  }
}

TEST_F(SubnetTest, FailsToPrintItsQueryWithoutALastLine) {
  start_subscribers({});
  standin::set_var("q", "");
  EXPECT_EQ(select("$var(q)", "10.1.2.3"), -1);
  EXPECT_THAT(messages(), ElementsAre(err(UNPRINTABLE_SELECT)));
}

TEST_F(SubnetTest, FailsToParseItsQueryWithoutALastLine) {
  start_subscribers({});
  EXPECT_EQ(select("subs,a|b", "10.1.2.3"), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: subs,a|b\n"), err("Size mismatch"),
                          err("Wrong number of fields in field list: subs,a|b | (null)\n"),
                          err("Could not parse query (subs,a|b) for insert\n")));
}

TEST_F(SubnetTest, WantsASourceAddressBeforeAnyRowIsLookedAt) {
  start_subscribers({by_net("a", "10.1.0.0", "0.0.0.0")});
  EXPECT_EQ(select(any(), ""), -1);
  EXPECT_THAT(messages(),
              ElementsAre(dbg("Select: " + any() + "\n"),
                          err("Could not print the formatted pv input for src_ip_str\n")));
}

TEST_F(SubnetTest, PrintsParametersOf255CharactersAndNoLongerOnes) {
  start_subscribers({});
  const std::string fits(255, 'x');
  EXPECT_EQ(select(any(), fits, fits, fits), -2);
  EXPECT_THAT(messages(), Contains(dbg("Received Source IP = " + fits + "\n")));
  EXPECT_THAT(messages(), Contains(dbg("Received From user = " + fits + "\n")));
  EXPECT_THAT(messages(), Contains(dbg("Received Contact user = " + fits + "\n")));
  EXPECT_EQ(select(any(), fits + "x"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not print the formatted pv input for src_ip_str\n")));
  EXPECT_EQ(select(any(), fits, fits + "x"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not print the formatted pv input for from_user_str\n")));
  EXPECT_EQ(select(any(), fits, fits, fits + "x"), -1);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(err("Could not print the formatted pv input ct\n")));
}

TEST_F(SubnetTest, TellsWhichParameterTheHostCouldNotPrint) {
  start_subscribers({});
  set_request("10.1.2.3", "alice", "bob");
  const standin::command prepared = prepare(any());
  const std::vector<std::string> told = {
      UNPRINTABLE_SELECT, "Could not print the formatted pv input for src_ip_str\n",
      "Could not print the formatted pv input for from_user_str\n",
      "Could not print the formatted pv input ct\n"};
  // A length below zero is no empty user either.
  for (const char *failing : {"pv_printf", "pv_printf.length"}) {
    for (size_t n = 0; n < told.size(); n++) {
      SCOPED_TRACE(failing + (" " + std::to_string(n)));
      clear();
      standin::fail_call(failing, static_cast<int>(n) + 1);
      EXPECT_EQ(call(prepared), -1);
      EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err(told[n])));
    }
  }
}

TEST_F(SubnetTest, FailsWhenTheHostRefusesAValue) {
  start_subscribers({by_net("a", "10.1.0.0", "0.0.0.0")});
  set_request("10.1.2.3", "", "");
  const standin::command prepared =
      fixup(SUBNET, {any(), "$avp(id)|$avp(x)", "$var(ip)", "$var(from)", "$var(contact)"});
  clear();
  standin::fail_call("add_avp", 2);
  EXPECT_EQ(call(prepared), -1);
  EXPECT_THAT(ids(), ElementsAre("a")) << "what was delivered stays";
  EXPECT_THAT(messages(INFO_LEVEL), ElementsAre(err("Could not add avp\n")));
}

TEST_F(SubnetTest, FailsCleanlyWhateverCallOrAllocationFails) {
  start_subscribers({by_user("a", "home", "1", "1")}, {"alice|home", "bob|home"});
  set_request("10.1.2.3", "alice", "bob");
  const standin::command prepared = prepare(any());
  const scene around{[this] { clear(); },
                     [this] {
                       EXPECT_EQ(row_count("subs"), 1);
                       expect_rows("remote_sub_dn_list", {{"alice", "home"}, {"bob", "home"}});
                     }};
  expect_results_of_failing_calls(
      prepared, 1, {{"pv_printf", {-1, -1, -1, -1}}, {"pv_get_avp_name", {1}}, {"add_avp", {-1}}},
      around);
  // The query's fields, and those of the two look-ups, without which a row doesn't match.
  expect_results_of_failing_allocations(pool::pkg, prepared, 1, {-1, -2, -2}, around);
  expect_results_of_failing_allocations(pool::shm, prepared, 1, {}, around);
}

TEST_F(SubnetTest, TakesAFailedLookUpForAUserThatIsNotFound) {
  start_subscribers({by_user("a", "home", "1", "0")}, {"alice|home"});
  set_request("10.1.2.3", "alice", "");
  const standin::command prepared = prepare(any());
  clear();
  standin::fail_at(pool::pkg, 2);
  EXPECT_EQ(call(prepared), -2);
  EXPECT_THAT(messages(INFO_LEVEL),
              ElementsAre(crit("no more pkg memory\n"),
                          err("Wrong number of fields in field list: remote_sub_dn_list,alice|* | "
                              "(null)\n"),
                          err("Could not parse query (remote_sub_dn_list,alice|*) for select\n")));
  EXPECT_EQ(of_rows().back(), NO_FROM);
}

// Parameters and cost.

TEST_F(SubnetTest, TakesItsRequestFromTheMessage) {
  start_subscribers({by_user("u", "home", "1", "1"), by_net("n", "10.1.0.0", "255.255.0.0")},
                    {"alice|home", "bob|home"});
  standin::set_value(msg, "$si", "10.1.2.3");
  standin::set_value(msg, "$fU", "alice");
  standin::set_value(msg, "$hdr(Contact)", "bob");
  EXPECT_EQ(run(SUBNET, {any(), "$avp(id)", "$si", "$fU", "$hdr(Contact)"}), 1);
  EXPECT_THAT(ids(), ElementsAre("n"));
  standin::set_value(msg, "$si", "192.0.2.1");
  clear();
  EXPECT_EQ(run(SUBNET, {any(), "$avp(id)", "$si", "$fU", "$hdr(Contact)"}), 1);
  EXPECT_THAT(ids(), ElementsAre("u"));
  clear();
  standin::set_var("who", "alice");
  standin::push_avp("who", "bob");
  EXPECT_EQ(run(SUBNET, {any(), "$avp(id)", "192.0.2.1", "$var(who)", "$avp(who)"}), 1);
  EXPECT_THAT(ids(), ElementsAre("u"));
}

TEST_F(SubnetTest, AsksTheHostForItsDebugLevelNoOftenerForMoreRows) {
  texts rows(500, by_net("many", "10.2.0.0", "255.255.0.0").line());
  for (int i = 0; i < 250; i++) rows.push_back(by_user("many", "other", "1", "1").line());
  rows.push_back(by_net("one", "10.2.0.0", "255.255.0.0").line());
  start_with({subscribers(), domains()}, {{"subs", rows}, {"remote_sub_dn_list", {"alice|home"}}});
  standin::set_debug_level(ALERT_LEVEL);
  set_request("10.1.2.3", "alice", "alice");
  const standin::command many = prepare("subs,many" + repeated("|*", COLUMNS - 1));
  const standin::command one = prepare("subs,one" + repeated("|*", COLUMNS - 1));
  standin::reset_calls();
  EXPECT_EQ(call(one), -2);
  const int for_one = standin::debug_level_queries();
  standin::reset_calls();
  EXPECT_EQ(call(many), -2);
  EXPECT_EQ(standin::debug_level_queries(), for_one);
  EXPECT_GT(for_one, 0);
}

}  // namespace
}  // namespace module_test
