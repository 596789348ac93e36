#include "core/recording/EmailValidator.h"
#include "core/recording/ShareComposer.h"
#include "core/recording/SuccessSummary.h"

#include <gtest/gtest.h>

using namespace kavelo;
using Result = ShareComposer::PendingInputResult;

namespace {

std::string addressOfLength(std::size_t length) {
    std::string domain = "@voorbeeld.nl";
    return std::string(length - domain.size(), 'a') + domain;
}

} // namespace

TEST(EmailValidatorTest, AcceptsOrdinaryAddressesAndRejectsMalformedOnes) {
    EXPECT_TRUE(EmailValidator::isValid("anne@kavely.nl"));
    EXPECT_TRUE(EmailValidator::isValid("  Anne.de.Vries+notulen@mail.example.co.uk\n"));
    EXPECT_TRUE(EmailValidator::isValid("zoë@bäcker.de"));
    for (const char* bad :
         {"", "   ", "anne", "anne@", "@kavely.nl", "anne@kavely", "anne@kavely.n", "an ne@kavely.nl",
          "anne@@kavely.nl", "anne@kave@ly.nl", "anne@.nl", "anne@kavely.é", "anne@kavely.n\tl"}) {
        EXPECT_FALSE(EmailValidator::isValid(bad)) << bad;
    }
}

TEST(EmailValidatorTest, TwoHundredFiftyFourCharactersPassAndTwoHundredFiftyFiveFail) {
    EXPECT_TRUE(EmailValidator::isValid(addressOfLength(254)));
    EXPECT_FALSE(EmailValidator::isValid(addressOfLength(255)));
    EXPECT_TRUE(EmailValidator::isValid("  " + addressOfLength(254) + "  "));
}

TEST(EmailValidatorTest, NormalizedTrimsAndLowercasesBeyondAscii) {
    EXPECT_EQ(EmailValidator::normalized(" \tAnne@KAVELY.nl\r\n"), "anne@kavely.nl");
    EXPECT_EQ(EmailValidator::normalized("ZOË@ÅRHUS.DK"), "zoë@århus.dk");
}

TEST(ShareComposerTest, AddressesAreStoredLowercaseAndKnownOnesAreRefused) {
    ShareComposer share(" Host@Kavely.NL ");
    EXPECT_EQ(share.hostEmail(), "host@kavely.nl");
    EXPECT_TRUE(share.addRecipient("Anne@Example.com", "Anne"));
    EXPECT_FALSE(share.addRecipient("anne@EXAMPLE.com"));
    EXPECT_FALSE(share.addRecipient("HOST@kavely.nl"));
    EXPECT_FALSE(share.addRecipient("geen-adres"));
    ASSERT_EQ(share.recipients.size(), 1u);
    EXPECT_EQ(share.recipients[0], (ShareComposer::Recipient{"anne@example.com", "Anne"}));
    share.removeRecipient(3);
    EXPECT_EQ(share.recipientsPayload(), (std::vector<FinalizeRecipient>{{"anne@example.com", "Anne"}}));
    share.removeRecipient(0);
    EXPECT_TRUE(share.recipients.empty());
}

TEST(ShareComposerTest, PendingTokensSplitAtEverySeparatorAndSkipKnownAndRepeatedAddresses) {
    ShareComposer share("host@kavely.nl");
    share.addRecipient("bram@example.com");
    share.pendingInput =
        "anne@example.com;\tBRAM@example.com, host@kavely.nl\n\nANNE@example.com  chris@example.com";
    EXPECT_EQ(share.pendingTokens().size(), 5u);
    EXPECT_EQ(share.pendingValidEmails(),
              (std::vector<std::string>{"anne@example.com", "chris@example.com"}));
    EXPECT_FALSE(share.pendingHasInvalidToken());
    EXPECT_EQ(share.externalCount(), 3);
    EXPECT_EQ(share.ctaLabel(), "Verstuur naar 4 personen");
}

TEST(ShareComposerTest, CommitAddsEachNewAddressOnceAndEmptiesTheBox) {
    ShareComposer share("host@kavely.nl");
    share.pendingInput = "anne@example.com, Anne@Example.com";
    EXPECT_EQ(share.commitPendingInputForSend(), Result::committed(1));
    EXPECT_EQ(share.recipients, (std::vector<ShareComposer::Recipient>{{"anne@example.com", std::nullopt}}));
    EXPECT_EQ(share.pendingInput, "");
    // The next press has nothing to commit and goes on.
    EXPECT_EQ(share.commitPendingInputForSend(), Result::empty());
}

TEST(ShareComposerTest, OneBadTokenStopsTheWholeCommitAndKeepsTheText) {
    ShareComposer share("host@kavely.nl");
    share.pendingInput = "anne@example.com bram@";
    EXPECT_TRUE(share.pendingHasInvalidToken());
    EXPECT_EQ(share.commitPendingInputForSend(), Result::invalid());
    EXPECT_TRUE(share.recipients.empty());
    EXPECT_EQ(share.pendingInput, "anne@example.com bram@");
    // The count on the screen already shows the good one.
    EXPECT_EQ(share.externalCount(), 1);
}

TEST(ShareComposerTest, OwnAddressOrOnlySeparatorsCommitNothing) {
    ShareComposer share("host@kavely.nl");
    share.pendingInput = " ,; \n";
    EXPECT_EQ(share.commitPendingInputForSend(), Result::empty());
    EXPECT_EQ(share.pendingInput, " ,; \n");
    share.pendingInput = "HOST@kavely.nl";
    EXPECT_EQ(share.commitPendingInputForSend(), Result::empty());
    EXPECT_EQ(share.pendingInput, "");
    EXPECT_TRUE(share.recipients.empty());
}

TEST(ShareComposerTest, CallToActionCountsTheHostAndTheTypedAddress) {
    ShareComposer share("host@kavely.nl");
    EXPECT_EQ(share.ctaLabel(), "Verstuur alleen naar mij");
    share.pendingInput = "anne@example.com";
    EXPECT_EQ(share.ctaLabel(), "Verstuur naar 2 personen");
    share.commitPendingInputForSend();
    EXPECT_EQ(share.ctaLabel(), "Verstuur naar 2 personen");
    EXPECT_TRUE(share.includeTranscription);
    EXPECT_FALSE(share.attachmentWord);
}

TEST(SuccessSummaryTest, RecipientLabelCountsTheOthers) {
    EXPECT_EQ((SuccessSummary{"Overleg", 60, 0}).recipientLabel(), "alleen jij");
    EXPECT_EQ((SuccessSummary{"Overleg", 60, 1}).recipientLabel(), "jij + 1");
    EXPECT_EQ((SuccessSummary{"Overleg", 60, 2}).recipientLabel(), "jij + 2");
    EXPECT_EQ((SuccessSummary{"Overleg", 60, 12}).recipientLabel(), "jij + 12");
}
