#include "src/Bag.h"

#include <fstream>

#include "platform/Base/AtomicFile.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSError.h"
#include "src/BagLoadOperation.h"
#include "tests/support/CertificateAuthority.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

const URL kHTTPS = *URL::parse("https://bag.example.com/bag");
const URL kHTTP = *URL::parse("http://bag.example.com/bag");

class BagTest : public ServiceTest {
 protected:
  std::shared_ptr<Bag> bag(std::uint64_t type = kBagTypeProduction) {
    return Bag::initWithBagType(type, client, std::weak_ptr<BagDelegate>());
  }
  Date inOneHour() { return world.clock.now().addingSeconds(3600); }
  // Has a bag take in what a server has sent.
  std::optional<Dictionary> accept(Bag& subject, const Dictionary& response, const URL& from,
                                   double secondsMore = 0) {
    error = std::nullopt;
    return subject.bagDictionaryWithServerResponseDictionary(
        response, inOneHour().addingSeconds(secondsMore), from, &error);
  }
  std::filesystem::path persistedFile(const char* name = "ProductionBag") {
    return world.directories.cacheHome / *client->identifier / name;
  }

  std::optional<Error> error;
};

TEST_F(BagTest, LookupLoadsOnceAndAnswersWhileValid) {
  world.serve({{"a", "x"}, {"page", "https://s.example.com/p"}, {"bad", "no url"}});
  const auto loaded = bag();
  EXPECT_FALSE(loaded->isValid());
  EXPECT_EQ(loaded->valueForKey("a"), Value("x"));
  EXPECT_EQ(loaded->urlForKey("page"), URL::parse("https://s.example.com/p"));
  EXPECT_EQ(loaded->urlForKey("bad"), std::nullopt);
  EXPECT_EQ(world.transport.requests().size(), 1u);
  EXPECT_TRUE(loaded->isValid());

  world.clock.advance(3599.5);
  EXPECT_TRUE(loaded->isValid());
  world.clock.advance(0.5);
  EXPECT_FALSE(loaded->isValid()) << "a bag is valid strictly before its date";
}

TEST_F(BagTest, FailedLoadKeepsTheOldContentsButAnswersNothing) {
  world.serve({{"a", "x"}, {"trustedDomains", Array{"example.com"}}});
  const auto loaded = bag();
  EXPECT_TRUE(loaded->urlIsTrusted(kHTTPS));
  loaded->invalidate();
  world.transport.setHandler(ScriptedTransport::fail(HTTPTransport::kCannotConnect));
  EXPECT_TRUE(loaded->valueForKey("a").isNil());
  EXPECT_FALSE(loaded->urlIsTrusted(kHTTPS));
  EXPECT_EQ((*loaded->dictionary())["a"], Value("x"));
  EXPECT_TRUE(loaded->urlIsTrusted(URL::parse("data:,x")));

  bool alreadyValid = true;
  loaded->loadBagIfNeededAndPerformBlock(
      [&](Bag&, bool valid, bool already, const auto&, const std::optional<Error>& given) {
        EXPECT_FALSE(valid);
        alreadyValid = already;
        error = given;
      });
  EXPECT_FALSE(alreadyValid);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, HTTPTransport::kCannotConnect);
}

TEST_F(BagTest, MaxAgeDecidesTheValidity) {
  for (const auto& [cacheControl, seconds, isDefault] :
       {std::tuple("max-age=3600", 3600, false), std::tuple("max-age=0", 68400, true),
        std::tuple("max-age=-5", 68400, true), std::tuple("public", 68400, false)}) {
    SCOPED_TRACE(cacheControl);
    world.log.clear();
    world.serve({{"a", 1}}, {{"Cache-Control", cacheControl}});
    const auto loaded = bag();
    loaded->invalidate();
    loaded->valueForKey("a");
    ASSERT_TRUE(loaded->validUntilDate());
    EXPECT_DOUBLE_EQ(loaded->validUntilDate()->secondsSince(world.clock.now()), seconds);
    EXPECT_EQ(world.log.contains(3,
                                 "BagLoadOperation: Server returned an invalid Max-Age for bag "
                                 "type 1, defaulting to 24 hours"),
              isDefault);
  }
}

TEST_F(BagTest, BootstrapURLsAreTriedInOrderAndTheFirstErrorStands) {
  client->productionBagURLs = {*URL::parse("https://one.example.com/"),
                               *URL::parse("https://two.example.com/")};
  world.write(kDefaultsBagURLKey, "https://zero.example.com/", kDaemonDefaultsID);
  world.transport.enqueue(ScriptedTransport::fail(HTTPTransport::kTimedOut));
  world.transport.enqueue(ScriptedTransport::fail(HTTPTransport::kCannotConnect));
  world.serve({{"a", 1}});
  bag()->loadBagIfNeededAndPerformBlock(
      [&](Bag&, bool valid, bool, const auto&, const auto& given) {
        EXPECT_TRUE(valid);
        error = given;
      });
  ASSERT_TRUE(error) << "the first failure's error stays, though a later URL succeeded";
  EXPECT_EQ(error->code, HTTPTransport::kTimedOut);
  std::vector<std::string> hosts;
  for (const HTTPRequest& request : world.transport.requests()) hosts.push_back(request.url.host());
  EXPECT_EQ(hosts,
            (std::vector<std::string>{"zero.example.com", "one.example.com", "two.example.com"}));
  EXPECT_TRUE(world.log.mentions(3, "will try 2 more bootstrap URLs"));
}

TEST_F(BagTest, UnknownTypesAskNobodyAndCustomBagsSaySo) {
  EXPECT_TRUE(bag(3)->valueForKey("a").isNil());
  EXPECT_TRUE(world.transport.requests().empty());
  EXPECT_TRUE(
      world.log.contains(1, "BagLoadOperation: Warning, no bootstrap URLs found for bag type 3"));

  world.write(kDefaultsUseCustomBagKey, true, kDaemonDefaultsID);
  world.serve({{"a", 1}});
  bag()->valueForKey("a");
  EXPECT_EQ(world.transport.requests().at(0).url.query(), "custombag=true");
}

TEST_F(BagTest, UnsignedFormsCountOverHTTPSOnly) {
  const auto subject = bag();
  const Dictionary inner{{"k", 1}};
  const Data listed = PropertyList::encode(inner, PropertyList::Format::Binary);
  EXPECT_EQ(accept(*subject, {{"bag", inner}}, kHTTPS), inner);
  ASSERT_TRUE(error) << "the signed form's error is reported though an unsigned form succeeded";
  EXPECT_EQ(error->code, kHSErrorBagNotSigned);
  EXPECT_EQ(accept(*subject, {{"bag", listed}}, kHTTPS), inner);
  EXPECT_EQ(accept(*subject, {{"bag", "text"}, {"urlBag", inner}}, kHTTPS), inner);
  EXPECT_EQ(accept(*subject, {{"other", 2}}, kHTTPS), (Dictionary{{"other", 2}}));
  EXPECT_EQ(accept(*subject, {{"bag", inner}}, kHTTP), std::nullopt);
  EXPECT_EQ(error->code, kHSErrorBagNotSigned);
  EXPECT_TRUE(world.log.contains(1, "Bag: Insufficient data to parse URL bag"));
}

class SignedBagTest : public BagTest {
 protected:
  SignedBagTest() {
    std::filesystem::create_directories(anchor.parent_path());
    std::ofstream(anchor) << chain.root.pem();
  }
  Dictionary signedResponse(const Data& bytes) {
    return {{"certs", chain.certificates()},
            {"signature", chain.leaf.key().sign(bytes)},
            {"bag", bytes}};
  }
  const Data contents =
      PropertyList::encode(Dictionary{{"k", "signed"}}, PropertyList::Format::XML);
  const std::filesystem::path anchor = world.directories.configDirs[1] / "anchors" / "root.pem";
  TestChain chain;
};

TEST_F(SignedBagTest, AcceptsAVerifyingDictionaryOverHTTPAndRefusesEveryFlippedByte) {
  const auto subject = bag();
  const Dictionary good = signedResponse(contents);
  EXPECT_EQ(accept(*subject, good, kHTTP), (Dictionary{{"k", "signed"}}));
  for (const char* key : {"bag", "signature"}) {
    const Data original = *good[key].data();
    for (std::size_t i = 0; i < original.length(); i += 1 + original.length() / 40) {
      std::vector<std::uint8_t> bytes(original.bytes(), original.bytes() + original.length());
      bytes[i] ^= 1;
      EXPECT_EQ(accept(*subject, good.setting(key, Data(std::move(bytes))), kHTTP), std::nullopt)
          << key << " byte " << i;
    }
  }
  for (const Data& bytes : {Data(std::string_view("no list")),
                            PropertyList::encode(Array{1}, PropertyList::Format::XML)}) {
    EXPECT_EQ(accept(*subject, signedResponse(bytes), kHTTP), std::nullopt);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, kHSErrorInvalidPropertyList);
  }
  EXPECT_TRUE(world.log.contains(1, "Bag: Could not unserialize the URL bag"));
}

TEST_F(SignedBagTest, ThePersistedCopyComesBackAndIsVerifiedAgain) {
  accept(*bag(), signedResponse(contents), kHTTP);
  EXPECT_TRUE(std::filesystem::exists(persistedFile()));
  const auto again = bag();
  EXPECT_TRUE(again->isValid());
  EXPECT_EQ(again->valueForKey("k"), Value("signed"));
  EXPECT_TRUE(world.transport.requests().empty());

  world.clock.advance(3601);
  EXPECT_FALSE(bag()->isValid());
  EXPECT_TRUE(world.log.mentions(1, "Bag: Discarded invalid persisted store for bag type 1"));
  EXPECT_TRUE(std::filesystem::exists(persistedFile()));
  world.clock.advance(-3601);

  std::filesystem::remove(anchor);
  EXPECT_FALSE(bag()->isValid()) << "an anchor that has gone makes the copy unusable";
  EXPECT_TRUE(world.log.mentions(1, "Bag: Error loading persisted bag type 1"));
}

TEST_F(BagTest, ThePersistedCopyIsWrittenOnlyWhenTheDateChanges) {
  const auto subject = bag(3);
  accept(*subject, {{"a", 1}}, kHTTPS);
  ASSERT_TRUE(std::filesystem::remove(persistedFile("UnknownBag")));
  accept(*subject, {{"a", 2}}, kHTTPS);
  EXPECT_FALSE(std::filesystem::exists(persistedFile("UnknownBag")));
  accept(*subject, {{"a", 3}}, kHTTPS, 1);
  EXPECT_EQ(bag(3)->valueForKey("a"), Value(3));
}

TEST_F(BagTest, DamagedAndNewerCopiesAreNeverDestroyed) {
  std::filesystem::create_directories(persistedFile().parent_path());
  std::ofstream(persistedFile()) << "bplist00 nonsense";
  EXPECT_FALSE(bag()->isValid());
  EXPECT_TRUE(std::filesystem::exists(persistedFile().native() + ".corrupt"));

  const Data newer = PropertyList::encode(
      Dictionary{{"version", 99}, {"archive", Dictionary{{"a", 1}}}}, PropertyList::Format::Binary);
  ASSERT_FALSE(writeFileAtomically(persistedFile(), newer));
  world.serve({{"a", 1}});
  const auto older = bag();
  EXPECT_FALSE(older->isValid());
  EXPECT_EQ(older->valueForKey("a"), Value(1)) << "loaded, and kept in memory alone";
  EXPECT_EQ(*readFile(persistedFile()), newer);
}

TEST_F(BagTest, WhatCouldNotBeReadAgainOrHasNoFolderIsNotWritten) {
  const auto subject = bag(3);
  Value deep = "x";
  for (std::size_t depth = 1; depth < PropertyList::kMaxDepth; ++depth) deep = Array{deep};
  accept(*subject, {{"a", deep}}, kHTTPS);
  EXPECT_FALSE(std::filesystem::exists(persistedFile("UnknownBag")));
  EXPECT_TRUE(world.log.mentions(1, "Bag: Error writing persisted bag to "));
  deep = *deep.array()->begin();
  deep = *deep.array()->begin();
  accept(*subject, {{"a", deep}}, kHTTPS, 1);
  EXPECT_EQ(bag(3)->valueForKey("a"), deep);

  std::filesystem::remove_all(world.directories.cacheHome / *client->identifier);
  std::ofstream(world.directories.cacheHome / *client->identifier) << "in the way";
  world.log.clear();
  world.serve({{"a", 1}});
  EXPECT_EQ(bag()->valueForKey("a"), Value(1)) << "only the copy is lost";
  EXPECT_TRUE(world.log.mentions(1, "Bag: Error writing persisted bag to "));
}

TEST_F(BagTest, RegularExpressionsMatchAnywhereWithoutCase) {
  world.serve({{"good", "b.D"}, {"broken", "("}, {"number", 4}});
  const auto subject = bag();
  EXPECT_TRUE(subject->regexWithKey("good", "ABCDE"));
  EXPECT_FALSE(subject->regexWithKey("good", "ACE"));
  EXPECT_FALSE(subject->regexWithKey("broken", "("));
  EXPECT_FALSE(subject->regexWithKey("number", "4"));
  EXPECT_FALSE(subject->regexWithKey("absent", ""));
  EXPECT_TRUE(
      world.log.contains(1, "Bag: Regex patten with key absent was not present in the bag"));
  EXPECT_TRUE(world.log.mentions(1, "Bag: Failed to parse regex from bag with key broken - ("));
}

TEST_F(BagTest, AnswersThatAreNoDictionaryLeaveTheBagAlone) {
  world.transport.setHandler(
      [](const HTTPRequest& request) { return ServiceWorld::listed(request, Array{1}); });
  EXPECT_TRUE(bag()->valueForKey("a").isNil());
  EXPECT_TRUE(world.log.contains(1, "BagLoadOperation: Output was not an dictionary (array)"));
}

}  // namespace
}  // namespace tallow
