#include "delivery_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A DNS server that keeps silent holds up only the delivery that waits for it: the program goes
// on serving mail programs meanwhile, and the file stays claimed until the answer comes.
TEST(SlowLookup, AnotherClientIsServedWhileTheLookupWaits)
{
    DeliveryBench b;
    ASSERT_TRUE(b.listen());
    b.dns.zones["slow.test"] = {FakeReply::Silent, {}};
    b.tables.CnxOut(1).DNS.lookupTiming = LookupTiming{std::chrono::milliseconds(1500), 1};
    b.queue("SLOW", {"<b@slow.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_EQ(b.tables.CnxOut(1).Status(), 2);

    Client client(b.port);
    play(client, kEnvelope + Dialogue{{"Subject: meanwhile\r\n\r\nhi\r\n.\r\n", kAccepted},
                                      {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_EQ(b.tables.CnxOut(1).Status(), 2) << "the lookup was still waiting";
    EXPECT_EQ(b.files("OutBox").size(), 2);
    b.dispatcher.VerifOutBox(); // the claimed file is not dispatched twice
    EXPECT_EQ(b.tables.CnxOut(1).CurrentOutFile, "SLOW");
    EXPECT_EQ(b.tables.CnxOut(2).Status(), 2) << "the new message took the next slot";

    ASSERT_TRUE(b.settle(8000));
    EXPECT_EQ(b.mailLog("(time out)").size(), 1);
    EXPECT_TRUE(b.files("Deferred").contains("SLOW"));
}

} // namespace
