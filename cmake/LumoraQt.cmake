# The Qt that the library is built with and its host links: LUMORA_QT is the major version. Sets
# lumora_qt_package, the arguments of find_package(), and lumora_qt_libraries.
if(LUMORA_QT EQUAL 4)
  # Before 4.8.6, QSettings::setPath drops a reference to the calling thread's data that it never took
  # (QTBUG-36908): a host with a QCoreApplication breaks after its second accessor.
  set(lumora_qt_package Qt4 4.8.6 COMPONENTS QtCore Qt3Support)
  set(lumora_qt_libraries Qt4::QtCore Qt4::Qt3Support)
elseif(LUMORA_QT EQUAL 5)
  set(lumora_qt_package Qt5 5.15 COMPONENTS Core)
  set(lumora_qt_libraries Qt5::Core)
elseif(LUMORA_QT EQUAL 6)
  set(lumora_qt_package Qt6 6.2 COMPONENTS Core)
  set(lumora_qt_libraries Qt6::Core)
else()
  message(FATAL_ERROR "LUMORA_QT must be the major version of Qt, 4, 5 or 6, not '${LUMORA_QT}'.")
endif()
