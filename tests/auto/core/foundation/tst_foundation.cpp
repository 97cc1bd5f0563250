#include "TestSupport.h"

#include "core/ZDAssert.h"
#include "core/ZDError.h"
#include "core/ZDNotificationCenter.h"
#include "core/ZDWeakTarget.h"
#include "resources/ZDLocalizedString.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

struct Observer : ZDWeakTarget
{
    QStringList seen;
};

} // namespace

class tst_Foundation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void errorDescribesItselfFromUserInfoOrDomainAndCode();
    void weakRefReadsNullOnceTheTargetIsGone();
    void notificationsReachMatchingObserversInOrder();
    void observerMayRemoveItselfAndOthersDuringDelivery();
    void observerAddedDuringDeliveryHearsOnlyLaterPosts();
    void destroyedObserverIsNeverCalled();
    void assertionPrintsConditionAndOperationThenAborts();
    void localizedLookupFallsBackToEnglishThenEmpty();
};

void tst_Foundation::errorDescribesItselfFromUserInfoOrDomainAndCode()
{
    const ZDError plain(u"SomeDomain"_s, 7);
    QVERIFY(plain.localizedDescription().contains(u"SomeDomain error 7"_s));
    const ZDError described(u"SomeDomain"_s, 7, {{ZDLocalizedDescriptionKey, u"Disk full"_s}});
    QCOMPARE(described.localizedDescription(), u"Disk full"_s);
    QVERIFY(ZDError().isNull());
    QVERIFY(!plain.isNull());
    QCOMPARE(plain, ZDError(u"SomeDomain"_s, 7));
}

void tst_Foundation::weakRefReadsNullOnceTheTargetIsGone()
{
    auto target = std::make_unique<Observer>();
    ZDWeakRef<Observer> ref(target.get());
    QCOMPARE(ref.get(), target.get());

    // A copy is a different object: references to the original do not follow it.
    Observer copy = *target;
    target.reset();
    QCOMPARE(ref.get(), nullptr);
    QVERIFY(ZDWeakRef<Observer>(&copy).get() == &copy);
}

void tst_Foundation::notificationsReachMatchingObserversInOrder()
{
    ZDNotificationCenter center;
    Observer first, second;
    int senderA = 0, senderB = 0;
    center.addObserver(&first, u"Changed"_s, &senderA,
                       [&](const ZDNotification &note) { first.seen << note.name; });
    center.addObserver(&second, QString(), nullptr, [&](const ZDNotification &note) {
        second.seen << note.name + u':' + note.userInfo.value(u"k"_s).toString();
    });

    center.postNotification(u"Changed"_s, &senderA, {{u"k"_s, u"v"_s}});
    center.postNotification(u"Changed"_s, &senderB);
    center.postNotification(u"Failed"_s, &senderA);
    QCOMPARE(first.seen, QStringList{u"Changed"_s});
    QCOMPARE(second.seen, (QStringList{u"Changed:v"_s, u"Changed:"_s, u"Failed:"_s}));

    // Removing by name takes only registrations made for that name.
    Observer third;
    center.addObserver(&third, u"Failed"_s, nullptr,
                       [&](const ZDNotification &note) { third.seen << note.name; });
    center.addObserver(&third, u"Other"_s, nullptr,
                       [&](const ZDNotification &note) { third.seen << note.name; });
    center.removeObserver(&third, u"Failed"_s, nullptr);
    center.removeObserver(&second, u"Failed"_s, nullptr);
    center.postNotification(u"Failed"_s, &senderA);
    center.postNotification(u"Other"_s, &senderA);
    QCOMPARE(third.seen, QStringList{u"Other"_s});
    QCOMPARE(second.seen.size(), 5);
}

void tst_Foundation::observerMayRemoveItselfAndOthersDuringDelivery()
{
    ZDNotificationCenter center;
    Observer a, b, c;
    QStringList order;
    center.addObserver(&a, u"N"_s, nullptr, [&](const ZDNotification &) {
        order << u"a"_s;
        center.removeObserver(&a);
        center.removeObserver(&b); // not called yet: must not be called now
    });
    center.addObserver(&b, u"N"_s, nullptr, [&](const ZDNotification &) { order << u"b"_s; });
    center.addObserver(&c, u"N"_s, nullptr, [&](const ZDNotification &) {
        order << u"c"_s;
        center.removeObserver(&c);
    });
    center.postNotification(u"N"_s, nullptr);
    center.postNotification(u"N"_s, nullptr);
    QCOMPARE(order, (QStringList{u"a"_s, u"c"_s}));
    QCOMPARE(center.observerCount(), 0);
}

void tst_Foundation::observerAddedDuringDeliveryHearsOnlyLaterPosts()
{
    ZDNotificationCenter center;
    Observer a, late;
    int lateCalls = 0;
    center.addObserver(&a, u"N"_s, nullptr, [&](const ZDNotification &) {
        if (center.observerCount() == 1)
            center.addObserver(&late, u"N"_s, nullptr,
                               [&](const ZDNotification &) { ++lateCalls; });
    });
    center.postNotification(u"N"_s, nullptr);
    QCOMPARE(lateCalls, 0);
    center.postNotification(u"N"_s, nullptr);
    QCOMPARE(lateCalls, 1);
}

void tst_Foundation::destroyedObserverIsNeverCalled()
{
    ZDNotificationCenter center;
    int calls = 0;
    {
        Observer shortLived;
        center.addObserver(&shortLived, u"N"_s, nullptr, [&](const ZDNotification &) { ++calls; });
    }
    center.postNotification(u"N"_s, nullptr);
    QCOMPARE(calls, 0);
    QCOMPARE(center.observerCount(), 0);
}

void tst_Foundation::assertionPrintsConditionAndOperationThenAborts()
{
    if (inDeathChild()) {
        ZD_ABSTRACT("ZDPublishAgent::someAbstractOperation");
    }
    const DeathOutcome outcome = runDeathChild("assertionPrintsConditionAndOperationThenAborts");
    QVERIFY2(diedSaying(outcome, {"ZDPublishAgent::someAbstractOperation", "(0)"}),
             outcome.stderrText.constData());
}

void tst_Foundation::localizedLookupFallsBackToEnglishThenEmpty()
{
    const QLocale german(QLocale::German, QLocale::Germany);
    QCOMPARE(ZDLocalizedString(u"PUBLISH"_s, german), u"Ver\u00f6ffentlichen"_s);
    QCOMPARE(ZDLocalizedString(u"PUBLISH"_s, QLocale(QLocale::French)), u"Publier"_s);
    // A language without a table of its own reads the English one.
    QCOMPARE(ZDLocalizedString(u"PUBLISH"_s, QLocale(QLocale::Japanese)), u"Publish"_s);
    QCOMPARE(ZDLocalizedString(u"NO_SUCH_KEY"_s, german), QString());
    QVERIFY(ZDLocalizedString(u"NO_SUCH_KEY"_s).isEmpty());
}

QTEST_GUILESS_MAIN(tst_Foundation)
#include "tst_foundation.moc"
