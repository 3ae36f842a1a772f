# The fuzz targets (fuzz_<name>.cpp, seeds in corpus/<name>/), shared by the libFuzzer build
# (fuzz/CMakeLists.txt) and the corpus replay test (tests/fuzz/CMakeLists.txt).
set(FERROVANE_FUZZ_TARGETS
  login_reply
  sync_replies
  task_replies
  quota_reply
  keyed_archive
  message_framing
  settings_file
  language_file
  update_description
)
set(FERROVANE_FUZZ_TARGETS_PREFIXED ${FERROVANE_FUZZ_TARGETS})
list(TRANSFORM FERROVANE_FUZZ_TARGETS_PREFIXED PREPEND fuzz_)

# The reader sources the targets exercise.
set(FERROVANE_FUZZ_READER_SOURCES
  src/util/FvError.cpp
  src/xml/GDataXMLNode.cpp src/xml/GDataXMLElement.cpp src/xml/GDataXMLDocument.cpp src/xml/XmlSupport.cpp
  src/link/KeyedArchive.cpp src/link/MessageFraming.cpp
  src/catalogue/CommandReplies.cpp src/catalogue/CataloguePaths.cpp
  src/app/ViewReplies.cpp src/app/SettingsFile.cpp src/app/LanguageUtil.cpp
)
list(TRANSFORM FERROVANE_FUZZ_READER_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/)
