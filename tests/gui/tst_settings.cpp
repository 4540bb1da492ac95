// Layout model: factories, parsing, look-up, print-outs and the compiled-in layout file.
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include "gui/settings.h"

using Settings::GUI;

namespace {

QJsonObject json(const char* text)
{
    return QJsonDocument::fromJson(text).object();
}

QString compiled_in_path()
{
    return QStringLiteral(LUMAXIS_SOURCE_DIR "/resources/settings_GUI.json");
}

} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void circleFactory_data();
    void circleFactory();
    void labelFactory_data();
    void labelFactory();
    void parseKeepsOrderAndRawLineBreaks();
    void brokenDocumentGivesEmptyValidModel_data();
    void brokenDocumentGivesEmptyValidModel();
    void lookUp();
    void circleAndGuiPrintOut();
    void compiledInFile();
    void unreadableFileGivesEmptyModel();
};

void TestSettings::circleFactory_data()
{
    QTest::addColumn<QByteArray>("object");
    QTest::addColumn<QString>("printed");

    QTest::newRow("full") << QByteArray(R"({"name":"On","center":{"x":490,"y":258},"radius":15,
                                            "pen_width":15,"color":"#60FF4040"})")
                          << "Circle 'On': (490,258), r=15, w=15, color=#60ff4040";
    QTest::newRow("empty object") << QByteArray("{}")
                                  << "Circle '': (0,0), r=0, w=0, color=#ff000000";
    QTest::newRow("wrong types") << QByteArray(R"({"name":7,"center":[1,2],"radius":"15",
                                                   "pen_width":2.5,"color":"pinkish"})")
                                 << "Circle '': (0,0), r=0, w=0, color=#ff000000";
    QTest::newRow("beyond 32 bits") << QByteArray(R"({"radius":4294967296,"pen_width":-3,
                                                      "color":"red"})")
                                    << "Circle '': (0,0), r=0, w=-3, color=#ffff0000";
}

void TestSettings::circleFactory()
{
    QFETCH(QByteArray, object);
    QFETCH(QString, printed);
    QCOMPARE(QString(Settings::CircleData_factory(json(object.constData()))), printed);
}

void TestSettings::labelFactory_data()
{
    QTest::addColumn<QByteArray>("object");
    QTest::addColumn<QString>("printed");

    QTest::newRow("defaults") << QByteArray("{}") << "Label '': (-1,-1) {} font='':-1: ''";
    QTest::newRow("x only") << QByteArray(R"({"id":"a","position":{"x":5}})")
                            << "Label 'a': (5,-1) {} font='':-1: ''";
    QTest::newRow("all keys") << QByteArray(R"({"id":"b","position":{"x":1,"y":2},"size":9,
                                                "font":"Serif","create":true,"white":true,
                                                "text":"t"})")
                              << "Label 'b': (1,2) {} font='Serif':9: 't'";
    QTest::newRow("wrong types") << QByteArray(R"({"id":1,"position":3,"size":"9","font":[],
                                                   "create":"yes","white":0,"text":{}})")
                                 << "Label '': (-1,-1) {not-white no-create} font='':0: ''";
    QTest::newRow("not white") << QByteArray(R"({"white":false})")
                               << "Label '': (-1,-1) {not-white} font='':-1: ''";
    QTest::newRow("no create") << QByteArray(R"({"create":false,"text":"%1 a\n%2"})")
                               << "Label '': (-1,-1) {no-create} font='':-1: '%1 a\n%2'";
}

void TestSettings::labelFactory()
{
    QFETCH(QByteArray, object);
    QFETCH(QString, printed);
    const Settings::LabelData label = Settings::LabelData_factory(json(object.constData()));
    QCOMPARE(QString(label), printed);
    QCOMPARE(label.reserved, 100);
}

void TestSettings::parseKeepsOrderAndRawLineBreaks()
{
    const GUI gui(QStringLiteral("{ \"labels\": [ {\"id\": \"x\", \"text\": \"a\nb\\nc\"},\n"
                                 "\t{\"id\": \"y\"} ], \"other\": 1,\n"
                                 "\"circles\": [ {\"name\": \"c1\"}, {\"name\": \"c2\"} ] }"));
    QVERIFY(gui.valid);
    QCOMPARE(gui.labels.size(), 2u);
    QCOMPARE(gui.labels[0].text, QStringLiteral("a\nb\nc"));
    QCOMPARE(gui.labels[1].id, QStringLiteral("y"));
    QCOMPARE(gui.circles.size(), 2u);
    QCOMPARE(gui.circles[1].name, QStringLiteral("c2"));
}

void TestSettings::brokenDocumentGivesEmptyValidModel_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("truncated") << QStringLiteral("{\"labels\": [ {\"id\": \"x\"");
    QTest::newRow("root is an array") << QStringLiteral("[ {\"labels\": []} ]");
    QTest::newRow("members of wrong type") << QStringLiteral("{\"labels\": 1, \"circles\": {}}");
}

void TestSettings::brokenDocumentGivesEmptyValidModel()
{
    QFETCH(QString, text);
    const GUI gui(text);
    QVERIFY(gui.valid);
    QVERIFY(gui.labels.empty());
    QVERIFY(gui.circles.empty());
}

void TestSettings::lookUp()
{
    const GUI gui(QStringLiteral(R"({"labels": [{"id": "s", "text": "first", "create": false},
                                                {"id": "s", "text": "second"},
                                                {"id": "st", "text": "longer"}]})"));
    QCOMPARE(gui.text(QStringLiteral("s")), QStringLiteral("first"));
    QCOMPARE(gui.label(QStringLiteral("st")), &gui.labels[2]);

    QTest::ignoreMessage(QtWarningMsg, "No matching label with id \"S\" found");
    QCOMPARE(gui.text(QStringLiteral("S")), QString());
    QTest::ignoreMessage(QtWarningMsg, "No matching label with id \"\" found");
    QCOMPARE(gui.label(QString()), nullptr);
}

void TestSettings::circleAndGuiPrintOut()
{
    QCOMPARE(QString(GUI()), QStringLiteral("GUI settings:\n\tInvalid\n"));

    const GUI gui(QStringLiteral(R"({"circles": [{"name": "c", "center": {"x": 1, "y": 2},
                                       "radius": 3, "pen_width": 4, "color": "#0A0B0C0D"}],
                                     "labels": [{"id": "l", "white": false}]})"));
    QCOMPARE(QString(gui), QStringLiteral("GUI settings:\n"
                                          "\tCircle 'c': (1,2), r=3, w=4, color=#0a0b0c0d\n"
                                          "\tLabel 'l': (-1,-1) {not-white} font='':-1: ''\n"));

    // The stream operator writes the print-out unquoted, then the stream's separating space.
    QString out;
    QDebug(&out) << gui.circles[0] << "|";
    QCOMPARE(out, QStringLiteral("Circle 'c': (1,2), r=3, w=4, color=#0a0b0c0d | "));
    out.clear();
    QDebug(&out).nospace() << gui.labels[0] << "|";
    QCOMPARE(out, QStringLiteral("Label 'l': (-1,-1) {not-white} font='':-1: ''|"));
}

void TestSettings::compiledInFile()
{
    const GUI gui = Settings::make_GUI(compiled_in_path());
    QVERIFY(gui.valid);

    QStringList ids;
    QStringList hidden;
    for (const Settings::LabelData& l : gui.labels) {
        ids << l.id;
        if (!l.create)
            hidden << l.id;
        QCOMPARE(l.size, -1);
        QVERIFY(l.white);
        QVERIFY(l.font.isEmpty());
    }
    QCOMPARE(ids, QStringList({"2", "4", "5", "7a", "7b", "9", "8b2", "status_noDev",
                               "status_devConn", "status_devRev", "status_devRevUnknown",
                               "app_name", "sim_mode", "debug_mode"}));
    QCOMPARE(hidden, QStringList({"8b2", "status_devConn", "status_devRev", "status_devRevUnknown",
                                  "app_name", "sim_mode", "debug_mode"}));

    QCOMPARE(gui.label(QStringLiteral("sim_mode"))->position, QPoint(480, 407));
    QCOMPARE(gui.label(QStringLiteral("8b2"))->position, QPoint(-1, -1));
    QCOMPARE(gui.label(QStringLiteral("status_noDev"))->position, QPoint(37, 483));
    QCOMPARE(gui.text(QStringLiteral("app_name")), QString());
    QCOMPARE(gui.text(QStringLiteral("2")),
             QStringLiteral("<span style=\"font-size:20pt\">\n<span style=\"color:#FFFFFF; "
                            "font-weight:bold;\">Firmware upgrade</span>\n<br>\n<span "
                            "style=\"font-weight:bold\">%1</span>\n</span>"));

    QCOMPARE(gui.circles.size(), 2u);
    QCOMPARE(QString(gui.circles[0]),
             QStringLiteral("Circle 'On button': (490,258), r=15, w=15, color=#60ff4040"));
    QCOMPARE(QString(gui.circles[1]),
             QStringLiteral("Circle 'Select button': (424,258), r=13, w=13, color=#60ff4040"));
}

void TestSettings::unreadableFileGivesEmptyModel()
{
    const GUI gui = Settings::make_GUI(QStringLiteral("/nonexistent/settings_GUI.json"));
    QVERIFY(gui.valid);
    QVERIFY(gui.labels.empty());
    QVERIFY(gui.circles.empty());
}

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
