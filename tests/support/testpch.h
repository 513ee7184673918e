// Headers nearly every test includes, compiled once per folder and kind of test instead of
// once per test: parsing them took most of a test file's compile time (tst_cp949 3.6 s
// against 0.8 s). Which Qt modules a test links changes what Qt Test declares, so there is one
// of these for tests with widgets, one for tests with Qt GUI and one for the rest
// (tests/CMakeLists.txt); the compiler refuses one made for another kind.
#pragma once

#include <QtTest>

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QWebSocket>

#ifdef QT_WIDGETS_LIB
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QWidget>
#endif
