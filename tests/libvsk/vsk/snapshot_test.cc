// Snapshots over the real store in one process: what a snapshot by client id, by generic
// id and by the light read holds; each filter field of a walk; the search's odd cases; the
// dump against a text written by hand from the operators' table; handles freed in every
// order a daemon might (ASan reports leaks and double frees).
#include <db.h>
#include <unistd.h>

#include <sstream>

#include "libvsk/store/context.h"
#include "session_fixture.h"
#include "snapshot_rows.h"

namespace vsk::test {
namespace {

std::string Bytes(std::initializer_list<uint8_t> b) { return std::string(b.begin(), b.end()); }

vsk_snapshot_filter Filter(uint32_t flags, uint32_t type_mask = 0,
                           vsk_attr_list_t* client = nullptr,
                           vsk_dyn_attr_list_t* dynamic = nullptr,
                           vsk_attr_list_t* service = nullptr, uint8_t* bits = nullptr,
                           uint16_t bits_len = 0) {
  vsk_snapshot_filter f{};
  f.client_type_mask = type_mask;
  f.flags = flags;
  f.client_attrs = client;
  f.dynamic_attrs = dynamic;
  f.service_attrs = service;
  f.config_bits = bits;
  f.config_bits_len = bits_len;
  return f;
}
constexpr uint32_t kClients = VSK_FILTER_CLIENT_SESSIONS;
constexpr uint32_t kServices = VSK_FILTER_SERVICE_SESSIONS;

class SnapshotTest : public OrvdInProcessTest {
 protected:
  // Four clients and their services, for the filter table.
  void PutFilterRows() {
    ASSERT_EQ(PutSession({10, &c10_, &d10_, {0x01}, {{20, &s20_}}}), 0);
    ASSERT_EQ(PutSession({11, &c11_, &d11_, {0x02}, {{21, &s21_}}}), 0);
    ASSERT_EQ(PutSession({12, &c12_}), 0);
    ASSERT_EQ(PutSession({13, &c13_, &d13_, {0x03}}), 0);
  }
  // Walks to the end with `f`; each step as "<current key>" plus ":bits" when the step
  // loaded ids and bits only, and "+<service ids>" when services came with it.
  std::vector<std::string> Walk(const vsk_snapshot_filter& f, vsk_status_t* end = nullptr) {
    std::vector<std::string> out;
    vsk_snapshot_handle h{};
    vsk_status_t st;
    while ((st = vsk_get_next_snapshot(&h, &f, 0)) == 0 && out.size() < 20) {
      std::string s = std::to_string(h.current_key);
      if (h.data->client->record != nullptr && h.data->client->attrs == nullptr) s += ":bits";
      for (uint16_t i = 0; i < h.service_count; ++i) s += "+" + std::to_string(h.service_ids[i]);
      out.push_back(s);
    }
    if (end != nullptr) *end = st;
    EXPECT_EQ(vsk_get_next_snapshot(&h, &f, 1), 0);
    vsk_free_snapshot_handle(&h);
    return out;
  }

  AttrList c10_{{VSK_CLIENT_SESSION_TYPE, U32(1)}, {VSK_USER_NAME, Text("a")}};
  AttrList c11_{{VSK_CLIENT_SESSION_TYPE, U32(2)}, {VSK_USER_NAME, Text("b")}};
  AttrList c12_{{VSK_CLIENT_SESSION_TYPE, U32(4)}, {VSK_USER_NAME, Text("a")}};
  AttrList c13_{{VSK_USER_NAME, Text("c")}};
  DynList d10_{{"kelvo-x", "abc"}}, d11_{{"kelvo-x", "abd"}}, d13_{{"kelvo-x", "abcdef"}};
  AttrList s20_{{VSK_SERVICE_NAME, Text("s1")}}, s21_{{VSK_SERVICE_NAME, Text("s2")}};
};

TEST_F(SnapshotTest, ClientServiceGenericAndLightReadsLoadWhatTheyShould) {
  AttrList client{{VSK_USER_NAME, Text("alice")}, {VSK_SESSION_STATE, U32(2)}};
  AttrList svc_a{{VSK_SESSION_STATE, U32(1)}, {VSK_SERVICE_NAME, Text("gold")}};
  AttrList svc_b{{VSK_SERVICE_NAME, Text("silver")}};
  DynList dyn{{"kelvo-plain", "p"}}, svc_dyn{{"kelvo-rate", "9"}};
  ASSERT_EQ(
      PutSession({100, &client, &dyn, {0x05}, {{101, &svc_a, &svc_dyn, {0x07}}, {102, &svc_b}}}),
      0);

  // By client id with its services.
  vsk_snapshot_handle h{};
  h.client_session_id = 100;
  h.include_services = 1;
  ASSERT_EQ(vsk_get_snapshot(&h), 0) << traces().Dump();
  EXPECT_EQ(ClientValue(&h, VSK_USER_NAME), Text("alice"));
  EXPECT_EQ(ClientValue(&h, VSK_USER_MAC_ADDRESS), "st-7") << "absent type is -7, not -6";
  EXPECT_EQ(ServiceValue(&h, 101, VSK_SESSION_STATE), U32(1));
  EXPECT_EQ(ServiceValue(&h, 103, VSK_SERVICE_NAME), "st-7");
  char* name = nullptr;
  ASSERT_EQ(vsk_get_service_name(&h, 102, &name), 0);
  EXPECT_STREQ(name, "silver");
  uint16_t bits_len = 0;
  uint8_t* bits = nullptr;
  ASSERT_EQ(vsk_get_service_session_config_bits(&h, 101, &bits_len, &bits), 0);
  EXPECT_EQ(std::string(bits, bits + bits_len), Bytes({0x07}));
  EXPECT_EQ(std::string(h.config_bits, h.config_bits + h.config_bits_len), Bytes({0x05}));
  ASSERT_EQ(h.service_count, 2);
  EXPECT_EQ(h.service_ids[0], 101u);
  EXPECT_EQ(h.service_ids[1], 102u);
  EXPECT_EQ(DynamicValue(&h, 0, "kelvo-plain"), "p");
  EXPECT_EQ(DynamicValue(&h, 101, "kelvo-rate"), "9");
  EXPECT_EQ(DynamicValue(&h, 101, "kelvo-plain"), "p") << "a service inherits its client's names";
  // The first read of the interface unit draws the pool's first unit into the session.
  EXPECT_EQ(DynamicValue(&h, 0, "kelvo-interface-unit"), std::string("1073741824", 11));
  vsk_free_snapshot_handle(&h);
  EXPECT_EQ(h.freed_marker, VSK_SNAPSHOT_FREED);
  EXPECT_EQ(h.data, nullptr);
  EXPECT_EQ(h.config_bits, nullptr);
  vsk_free_snapshot_handle(&h);  // silent

  // Preset service ids: each loads its service and its owner again.
  vsk_session_id_t preset[] = {102, 101};
  h.service_ids = preset;
  h.service_count = 2;
  h.include_services = 0;
  ASSERT_EQ(vsk_get_snapshot(&h), 0) << traces().Dump();
  EXPECT_EQ(ServiceValue(&h, 101, VSK_SERVICE_NAME), Text("gold"));
  EXPECT_EQ(ServiceValue(&h, 102, VSK_SERVICE_NAME), Text("silver"));
  EXPECT_EQ(DynamicValue(&h, 0, "kelvo-plain"), "p");
  EXPECT_EQ(h.service_ids, preset) << "a caller's array stays the caller's";
  vsk_free_snapshot_handle(&h);

  // A generic id naming a service: the service, its owner's data, client id left at 0.
  vsk_snapshot_handle g{};
  g.session_id = 101;
  ASSERT_EQ(vsk_get_snapshot(&g), 0) << traces().Dump();
  EXPECT_EQ(g.client_session_id, 0u);
  ASSERT_EQ(g.service_count, 1);
  EXPECT_EQ(g.service_ids[0], 101u);
  EXPECT_EQ(ServiceValue(&g, 101, VSK_SERVICE_NAME), Text("gold"));
  EXPECT_EQ(ClientValue(&g, VSK_USER_NAME), Text("alice"));
  vsk_free_snapshot_handle(&g);
  // A generic id naming a client sets client_session_id.
  vsk_snapshot_handle c{};
  c.session_id = 100;
  ASSERT_EQ(vsk_get_snapshot(&c), 0);
  EXPECT_EQ(c.client_session_id, 100u);
  EXPECT_EQ(ClientValue(&c, VSK_SESSION_STATE), U32(2));
  vsk_free_snapshot_handle(&c);

  // Absent ids, bad flags and empty handles.
  vsk_snapshot_handle none{};
  none.client_session_id = 999;
  EXPECT_EQ(vsk_get_snapshot(&none), -7);
  EXPECT_EQ(none.data, nullptr);
  EXPECT_EQ(ClientValue(&none, VSK_USER_NAME), "st-6");
  EXPECT_TRUE(traces().Contains("Getting client session attribute without providing snapshot"));
  none.flags = 1;
  EXPECT_EQ(vsk_get_snapshot(&none), -6);
  EXPECT_EQ(vsk_get_snapshot(nullptr), -6);
  vsk_free_snapshot_handle(nullptr);

  // The light read keeps one result entry, which each read overwrites.
  AttrList bob{{VSK_USER_NAME, Text("bob")}, {VSK_PROFILE_NAME, Text("gold")}};
  ASSERT_EQ(PutSession({200, &bob, nullptr, {0x09}}), 0);
  vsk_snapshot_handle l{};
  l.client_session_id = 200;
  l.flags = VSK_HANDLE_FLAG_ATTRS_ONLY;
  ASSERT_EQ(vsk_get_snapshot(&l), 0);
  vsk_attr_value_t* first = nullptr;
  vsk_attr_value_t* second = nullptr;
  ASSERT_EQ(vsk_get_client_session_attr(&l, VSK_USER_NAME, &first), 0);
  EXPECT_EQ(First(0, first), Text("bob"));
  ASSERT_EQ(vsk_get_client_session_attr(&l, VSK_PROFILE_NAME, &second), 0);
  EXPECT_EQ(first, second);
  EXPECT_EQ(First(0, first), Text("gold")) << "the second read changes what the first shows";
  EXPECT_EQ(ClientValue(&l, VSK_ROUTING_INSTANCE), "st-7");
  EXPECT_EQ(l.config_bits_len, 1);
  vsk_free_snapshot_handle(&l);
  vsk_free_snapshot_handle(&l);
  l.client_session_id = 201;
  EXPECT_EQ(vsk_get_snapshot(&l), -7);
}

// Each filter field selects exactly the sessions it should.
TEST_F(SnapshotTest, EachFilterFieldSelectsExactlyItsSessions) {
  PutFilterRows();
  AttrList user_a{{VSK_USER_NAME, Text("a")}};
  AttrList svc_s2{{VSK_SERVICE_NAME, Text("s2")}};
  DynList prefix{{"kelvo-x", "abc"}};
  uint8_t mask[] = {0x02};
  struct Case {
    const char* what;
    vsk_snapshot_filter f;
    std::vector<std::string> want;
  } cases[] = {
      {"all clients", Filter(kClients), {"10", "11", "12", "13"}},
      {"type mask, untyped passes", Filter(kClients, 6), {"11", "12", "13"}},
      {"client attrs", Filter(kClients, 0, user_a.get()), {"10", "12"}},
      {"dynamic prefix", Filter(kClients, 0, nullptr, prefix.get()), {"10", "13"}},
      {"config-bit mask",
       Filter(kClients, 0, nullptr, nullptr, nullptr, mask, 1),
       {"10:bits", "11", "12", "13"}},
      {"clients with services", Filter(kClients | kServices), {"10+20", "11+21", "12", "13"}},
      {"service walk", Filter(kServices), {"20+20", "21+21"}},
      {"service attrs", Filter(kServices, 0, nullptr, nullptr, svc_s2.get()), {"21+21"}},
  };
  for (const Case& c : cases) {
    vsk_status_t end = 0;
    EXPECT_EQ(Walk(c.f, &end), c.want) << c.what;
    EXPECT_EQ(end, -7) << c.what;
  }
  // The search agrees with the walk and reads the same sessions.
  static std::vector<uint64_t> seen;
  seen.clear();
  vsk_snapshot_filter f = Filter(kClients, 0, user_a.get());
  ASSERT_EQ(vsk_search_session(
                [](vsk_snapshot_handle* h) {
                  seen.push_back(h->client_session_id);
                  return 0;
                },
                &f),
            0);
  EXPECT_EQ(seen, (std::vector<uint64_t>{10, 12}));
  // A service whose client is gone ends the service walk with -7.
  AttrList orphan{{VSK_SERVICE_NAME, Text("orphan")}};
  ASSERT_EQ(PutSession({13, &c13_, &d13_, {0x03}, {{30, &orphan, nullptr, {}, 99}}}), 0);
  vsk_status_t end = 0;
  EXPECT_EQ(Walk(Filter(kServices), &end), (std::vector<std::string>{"20+20", "21+21"}));
  EXPECT_EQ(end, -7);
  EXPECT_TRUE(traces().Contains("vsk_get_client_dyn_internal: client_session_record is NULL"));
  vsk_snapshot_handle h{};
  EXPECT_EQ(vsk_get_next_snapshot(&h, nullptr, 0), -6);
  vsk_snapshot_filter zero{};
  EXPECT_EQ(vsk_get_next_snapshot(&h, &zero, 0), -6);
  EXPECT_EQ(h.walk, nullptr);
}

// A null filter or flags 0 never ends the search: bounded by a callback that leaves.
TEST_F(SnapshotTest, SearchWithNullOrZeroFilterRepeatsEmptySnapshotsForever) {
  PutFilterRows();
  vsk_close_internal();
  for (int zero_flags = 0; zero_flags < 2; ++zero_flags) {
    ChildResult r = RunInChild([zero_flags] {
      orvd_ctx link{};
      if (Up(&link, false) != 0) return 100;
      static int calls = 0;
      vsk_snapshot_filter f{};
      vsk_search_session(
          [](vsk_snapshot_handle* h) {
            if (h->client_session_id != 0 || h->data == nullptr) _exit(2);
            if (++calls == 50) _exit(7);
            return 0;
          },
          zero_flags != 0 ? &f : nullptr);
      return 3;
    });
    EXPECT_TRUE(r.exited && r.code == 7) << r;
  }
  ASSERT_EQ(Up(&link_, true), 0);
}

TEST_F(SnapshotTest, HandlesFreedInEveryOrderLeakNothing) {
  PutFilterRows();
  vsk_snapshot_handle never{};
  vsk_free_snapshot_handle(&never);
  EXPECT_EQ(never.freed_marker, 0u) << "a handle never loaded is left alone";

  vsk_snapshot_handle h{};
  h.client_session_id = 10;
  h.include_services = 1;
  ASSERT_EQ(vsk_get_snapshot(&h), 0);
  ASSERT_EQ(vsk_get_snapshot(&h), 0) << "a second load without a free";
  vsk_free_snapshot_handle(&h);
  vsk_free_snapshot_handle(&h);

  // A walk ended early, one ended by -7, one restarted on the same handle, and a light
  // read on the handle a walk used.
  vsk_snapshot_filter f = Filter(kClients | kServices);
  vsk_snapshot_handle w{};
  ASSERT_EQ(vsk_get_next_snapshot(&w, &f, 1), 0) << "done on a handle with no walk starts one";
  ASSERT_NE(w.walk, nullptr);
  ASSERT_EQ(vsk_get_next_snapshot(&w, &f, 0), 0);
  ASSERT_EQ(vsk_get_next_snapshot(&w, &f, 1), 0);
  EXPECT_EQ(w.walk, nullptr);
  EXPECT_NE(w.data, nullptr) << "the last snapshot stays loaded";
  vsk_free_snapshot_handle(&w);
  vsk_status_t st;
  while ((st = vsk_get_next_snapshot(&w, &f, 0)) == 0) {
  }
  EXPECT_EQ(st, -7);
  EXPECT_EQ(vsk_get_next_snapshot(&w, &f, 1), 0);
  vsk_free_snapshot_handle(&w);
  std::memset(&w, 0, sizeof w);
  w.client_session_id = 11;
  w.flags = VSK_HANDLE_FLAG_ATTRS_ONLY;
  ASSERT_EQ(vsk_get_snapshot(&w), 0);
  ASSERT_EQ(vsk_get_snapshot(&w), 0);
  vsk_free_snapshot_handle(&w);
  vsk_free_snapshot_handle(&w);
}

// Arrays read through the cursor: an instance by its identifying value, its members, the
// instances in turn by mode, and the refusal of a member read by plain name.
TEST_F(SnapshotTest, ArrayCursorReadsInstancesAndTheirMembers) {
  AttrList client{{VSK_USER_NAME, Text("arr")}};
  DynList dyn;
  dyn.Add("kelvo-plain", "p")
      .Add("filter", "in", VSK_ARRAY_START_TLV)
      .Add("rate", "10", VSK_ARRAY_MEMBER_TLV)
      .Add("filter", "out", VSK_ARRAY_START_TLV)
      .Add("rate", "20", VSK_ARRAY_MEMBER_TLV);
  ASSERT_EQ(PutSession({300, &client, &dyn}), 0);
  vsk_snapshot_handle h{};
  h.client_session_id = 300;
  ASSERT_EQ(vsk_get_snapshot(&h), 0);
  auto text = [](const vsk_attr_value_t* v) {
    return std::string(static_cast<const char*>(v->value), v->length);
  };
  EXPECT_EQ(DynamicValue(&h, 0, "rate"), "st-16") << "a member is not read by plain name";
  vsk_attr_value_t* v = nullptr;
  ASSERT_EQ(vsk_get_dynamic_array_config_attr_str(&h, 0, "filter", "out", &v, 1), 0);
  EXPECT_EQ(text(v), "out");
  ASSERT_EQ(vsk_get_dynamic_array_config_attr_str(&h, 0, "rate", nullptr, &v, 2), 0);
  EXPECT_EQ(text(v), "20") << "the member of the instance reached";
  ASSERT_EQ(vsk_get_dynamic_array_config_attr_str(&h, 0, "kelvo-plain", nullptr, &v, 1), 0);
  EXPECT_EQ(text(v), "p");
  EXPECT_EQ(vsk_get_dynamic_array_config_attr_str(&h, 0, "filter", "none", &v, 1), -7);
  vsk_cleanup_after_arrays(&h);
  // Instances in turn by mode, then the end.
  std::vector<std::string> seen;
  int mode = VSK_ARRAY_READ_BEGIN;
  while (vsk_get_dynamic_array_config_attr_str(&h, 0, "filter", nullptr, &v, mode) == 0 &&
         seen.size() < 5) {
    seen.push_back(text(v));
    mode = VSK_ARRAY_READ_NEXT;
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"in", "out"}));
  EXPECT_EQ(vsk_get_dynamic_array_config_attr_str(nullptr, 0, "filter", nullptr, &v, 1), -6);
  vsk_free_snapshot_handle(&h);
  EXPECT_EQ(h.array_attr_name, nullptr);
}

// Corrupt rows: the read fails with a status, the handle holds nothing, nothing leaks, and
// the neighbours stay readable.
TEST_F(SnapshotTest, CorruptRecordsFailTheReadAndLeaveTheHandleEmpty) {
  PutFilterRows();
  auto put_raw = [](DB* db, uint64_t key, std::string bytes) {
    DBT k{}, d{};
    k.data = &key;
    k.size = sizeof key;
    d.data = bytes.data();
    d.size = static_cast<uint32_t>(bytes.size());
    return db->put(db, nullptr, &k, &d, DB_AUTO_COMMIT);
  };
  const store::StoreContext* ctx = store::Context();
  ASSERT_EQ(put_raw(ctx->client_session_db, 60, "\x01\x00\xff\xff\xff\x7f"), 0);
  ASSERT_EQ(put_raw(ctx->dynamic_config_db, 12, std::string("\x01\x00\x05\x00\x40", 5)), 0);
  for (uint64_t id : {60, 12}) {
    vsk_snapshot_handle h{};
    h.client_session_id = id;
    h.include_services = 1;
    vsk_status_t st = vsk_get_snapshot(&h);
    EXPECT_LT(st, 0) << id;
    EXPECT_NE(st, -7) << id;
    EXPECT_EQ(h.data, nullptr) << id;
    vsk_free_snapshot_handle(&h);
  }
  vsk_snapshot_handle ok{};
  ok.client_session_id = 11;
  EXPECT_EQ(vsk_get_snapshot(&ok), 0);
  EXPECT_EQ(ClientValue(&ok, VSK_USER_NAME), Text("b"));
  vsk_free_snapshot_handle(&ok);
}

TEST(ToaTest, DigitsComeLowestFirstAsPublished) {
  struct {
    uint64_t value;
    const char* text;
  } cases[] = {
      {0, "0"}, {7, "7"}, {120, "021"}, {1000, "0001"}, {UINT64_MAX, "51615590737044764481"}};
  for (const auto& c : cases) {
    char buf[24];
    std::memset(buf, 'x', sizeof buf);
    vsk_toa(c.value, buf);
    EXPECT_STREQ(buf, c.text) << c.value;
  }
}

// The dump of a rich session against the operators' table, line by line.
TEST_F(SnapshotTest, DumpMatchesTheOperatorsTableLineByLine) {
  uint32_t six[4] = {1, 2, 3, 4};
  AttrList client{{VSK_PREFERRED_IPV6_ADDRESS, std::string(reinterpret_cast<char*>(six), 16)},
                  {VSK_USER_NAME, Text("alice")},
                  {VSK_PROFILE_NAME, "gold"},  // no NUL of its own
                  {VSK_USER_IPV4_ADDRESS, U32(0x0a000001)},
                  {VSK_USER_IPV6_ADDRESS, Bytes({1, 2, 3})},
                  {VSK_SESSION_STATE, U32(2)},
                  {VSK_CLIENT_SESSION_TYPE, U32(4)},
                  {VSK_USER_MAC_ADDRESS, Text("00:11")},
                  {VSK_DSL_FORUM_ATTRIBUTE, Bytes({9, 200})},
                  {99, Bytes({7})},
                  {VSK_UPSTREAM_RATE, U32(1000)}};
  DynList dyn{{"kelvo-a", "x"}, {"kelvo-b", "12"}};
  AttrList svc_a{{VSK_SESSION_STATE, U32(1)},
                 {VSK_SERVICE_NAME, Text("svc-a")},
                 {VSK_AGGREGATED, U32(1)},
                 {77, Bytes({5})}};
  AttrList svc_b{{VSK_SERVICE_NAME, Text("svc-b")}};
  DynList svc_dyn{{"rate", "9"}};
  ASSERT_EQ(PutSession({500, &client, &dyn, {1, 0x80}, {{900, &svc_a, &svc_dyn}, {901, &svc_b}}}),
            0);
  vsk_snapshot_handle h{};
  h.client_session_id = 500;
  h.include_services = 1;
  ASSERT_EQ(vsk_get_snapshot(&h), 0);
  traces().Clear();
  vsk_dump_snapshot(&h);
  std::string all;
  for (const std::string& t : traces().Texts()) all += t;
  const char* want =
      "configuration bits=1 128 \n"
      "Client session 500 {\n"
      "Session attributes {\n"
      "session preferred ipv6 address=1 2 3 4\n"
      "user name=alice\n"
      "profile name=gold\n"
      "user ipv4 address=167772161\n"
      "user ipv address={\n"
      "1 2 3 }\n"
      "client session state=2\n"
      "client_session_type=4\n"
      "user mac address=00:11\n"
      "dsl forum attribute={\n"
      "9 200 }\n"
      "unknown session attribute 99 = 7 advisory options upstream rate=1000\n"
      "Dynamic configuration {\n"
      "kelvo-a=120 kelvo-b=49 50 }\n"
      "Dynamic default configuration {\n"
      "}\n"
      "Service sessions {\n"
      "service session state=1\n"
      "service name=svc-a\n"
      "aggregated boolean=1\n"
      "unknown session attribute=5 Dynamic configuration {\n"
      "rate=57 }\n"
      "service name=svc-b\n"
      "No dynamic configuration \n"
      "}\n"
      "}\n";
  std::istringstream got_lines(all), want_lines(want);
  std::string got_line, want_line;
  int n = 0;
  while (std::getline(want_lines, want_line)) {
    ASSERT_TRUE(std::getline(got_lines, got_line)) << "missing line " << n << ": " << want_line;
    EXPECT_EQ(got_line, want_line) << "line " << n;
    ++n;
  }
  EXPECT_FALSE(std::getline(got_lines, got_line)) << "extra: " << got_line;
  vsk_free_snapshot_handle(&h);

  // Nothing loaded; and no hook: nothing at all.
  traces().Clear();
  vsk_dump_snapshot(&h);
  EXPECT_EQ(traces().Texts(), (std::vector<std::string>{"session data is missing"}));
  vsk_set_trace_cbk(nullptr);
  vsk_dump_snapshot(&h);
  vsk_set_trace_cbk(&CaptureTrace);
  EXPECT_EQ(traces().Texts().size(), 1u);
}

}  // namespace
}  // namespace vsk::test
