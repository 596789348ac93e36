#include "GalleryScenes.h"

#include <QVariantList>

namespace kavelo {
namespace {

QVariantMap device(const QString& id, const QString& name, bool isDefault) {
    return {
        {QStringLiteral("id"), id}, {QStringLiteral("name"), name}, {QStringLiteral("isDefault"), isDefault}};
}

QVariantMap activity(const QString& id, const QString& name, const QString& phase, const QString& submittedAt,
                     bool slow, int recipients) {
    QVariantMap item{{QStringLiteral("recordingId"), id},
                     {QStringLiteral("meetingName"), name},
                     {QStringLiteral("phase"), phase},
                     {QStringLiteral("submittedAt"), submittedAt},
                     {QStringLiteral("createdAt"), submittedAt},
                     {QStringLiteral("updatedAt"), submittedAt},
                     {QStringLiteral("slow"), slow}};
    if (recipients > 0) {
        item.insert(QStringLiteral("recipientCount"), recipients);
    }
    return item;
}

QVariantList someActivity() {
    return {activity(QStringLiteral("rec-3"), QStringLiteral("Weekstart projectteam"),
                     QStringLiteral("transcribing"), QStringLiteral("2026-11-24T09:05:00Z"), false, 0),
            activity(QStringLiteral("rec-2"),
                     QStringLiteral(
                         "Klantgesprek gemeente Utrecht over de nieuwe aanbesteding en de planning voor "
                         "het voorjaar"),
                     QStringLiteral("generating"), QStringLiteral("2026-11-23T14:30:00Z"), true, 0),
            activity(QStringLiteral("rec-1"), QString(), QStringLiteral("delivered"),
                     QStringLiteral("2026-11-22T11:00:00Z"), false, 4)};
}

QVariantList someTips() {
    return {QVariantMap{
        {QStringLiteral("id"), QStringLiteral("tip-1")},
        {QStringLiteral("title"), QString()},
        {QStringLiteral("body"), QStringLiteral("Noem aan het begin van het gesprek ieders naam: dan "
                                                "herkennen we de sprekers beter.")},
        {QStringLiteral("url"), QString()}}};
}

} // namespace

QVariantMap GalleryScenes::baseline() {
    return {
        {QStringLiteral("isSignedIn"), true},
        {QStringLiteral("sessionExpired"), false},
        {QStringLiteral("online"), true},
        {QStringLiteral("phase"), QStringLiteral("idle")},
        {QStringLiteral("elapsedSeconds"), 0},
        {QStringLiteral("startBlocker"), QString()},
        {QStringLiteral("meetingName"), QString()},
        {QStringLiteral("profile"),
         QVariantMap{{QStringLiteral("userId"), QStringLiteral("demo")},
                     {QStringLiteral("email"), QStringLiteral("demo@kavely.nl")},
                     {QStringLiteral("fullName"), QStringLiteral("Sanne de Vries")},
                     {QStringLiteral("organizationName"), QStringLiteral("Demo BV")}}},
        {QStringLiteral("microphones"),
         QVariantList{device(QStringLiteral("mic-1"), QStringLiteral("Ingebouwde microfoon"), true),
                      device(QStringLiteral("mic-2"), QStringLiteral("USB-headset"), false)}},
        {QStringLiteral("systemSources"),
         QVariantList{device(QStringLiteral("system"), QStringLiteral("Alle uitvoer (monitor)"), true)}},
        {QStringLiteral("selectedMicrophoneId"), QStringLiteral("mic-1")},
        {QStringLiteral("selectedSystemSourceId"), QStringLiteral("system")},
        {QStringLiteral("systemAudioMode"), QStringLiteral("system")},
        {QStringLiteral("dashboardActivity"), QVariantList{}},
        {QStringLiteral("tips"), QVariantList{}},
        {QStringLiteral("tipsEnabled"), true},
        {QStringLiteral("updateStatus"), QVariantMap{{QStringLiteral("state"), QStringLiteral("upToDate")}}},
    };
}

QVector<GalleryScene> GalleryScenes::all() {
    const auto home = QStringLiteral("home");
    return {
        {QStringLiteral("dashboard-empty"), home, {}},
        {QStringLiteral("dashboard-activity"),
         home,
         {{QStringLiteral("dashboardActivity"), someActivity()}, {QStringLiteral("tips"), someTips()}}},
        {QStringLiteral("dashboard-recording"),
         home,
         {{QStringLiteral("phase"), QStringLiteral("recording")},
          {QStringLiteral("elapsedSeconds"), 754},
          {QStringLiteral("meetingName"), QStringLiteral("Weekstart projectteam")},
          {QStringLiteral("dashboardActivity"), someActivity()}}},
        {QStringLiteral("dashboard-offline"),
         home,
         {{QStringLiteral("online"), false}, {QStringLiteral("dashboardActivity"), someActivity()}}},
        {QStringLiteral("dashboard-update"),
         home,
         {{QStringLiteral("updateStatus"),
           QVariantMap{
               {QStringLiteral("state"), QStringLiteral("available")},
               {QStringLiteral("version"), QStringLiteral("1.4.0")},
               {QStringLiteral("downloadUrl"), QStringLiteral("https://kavely.nl/download")},
               {QStringLiteral("notes"), QStringLiteral("Sprekers worden beter herkend en het verslag "
                                                        "komt sneller binnen.")}}},
          {QStringLiteral("dashboardActivity"), someActivity()}}},
        {QStringLiteral("dashboard-expired"),
         home,
         {{QStringLiteral("sessionExpired"), true},
          {QStringLiteral("isSignedIn"), false},
          {QStringLiteral("profile"), QVariantMap{}}}},
        [] {
            GalleryScene scene(QStringLiteral("dashboard-error"), QStringLiteral("home"), {});
            scene.error = {
                {QStringLiteral("nl"), QStringLiteral("De microfoon is niet gevonden. Sluit hem opnieuw aan "
                                                      "of kies een andere in de instellingen.")},
                {QStringLiteral("en"), QStringLiteral("The microphone was not found. Plug it in again or "
                                                      "choose another one in the settings.")}};
            return scene;
        }(),
        {QStringLiteral("dashboard-loading"),
         home,
         {{QStringLiteral("isSignedIn"), false}, {QStringLiteral("profile"), QVariantMap{}}}},
        {QStringLiteral("dashboard-activity-end"),
         home,
         {{QStringLiteral("dashboardActivity"), someActivity()}, {QStringLiteral("tips"), someTips()}},
         QStringLiteral("dashboardScroller")},
        {QStringLiteral("settings"), QStringLiteral("settings"), {}},
        {QStringLiteral("settings-end"), QStringLiteral("settings"), {}, QStringLiteral("settingsScroller")},
    };
}

} // namespace kavelo
