#include "Logger.h"

#include "LogSink.h"

namespace FenREL {

Logger::~Logger()
{
    LogSink::Get().Emit(_level, _msgId, _entId, _tags, _text);
}

Logger& Logger::AddTag(const std::string& tag)
{
    _tags.push_back(tag);
    return *this;
}

Logger& Logger::SetMsgId(const std::string& msgId)
{
    _msgId = msgId;
    return *this;
}

Logger& Logger::SetEntId(const std::string& entId)
{
    _entId = entId;
    return *this;
}

}  // namespace FenREL
