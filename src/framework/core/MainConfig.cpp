#include "MainConfig.h"

#include <cstdio>
#include <exception>
#include <locale>

#include <boost/property_tree/xml_parser.hpp>

#include "Logger.h"
#include "RootPath.h"

namespace FenREL {

namespace {

const std::string s_configDir = RootPath("/etc/corvid/zun/");
const std::string s_defaultFile = s_configDir + "fenrel" + ".xml";
std::string s_fileName = s_defaultFile;
boost::property_tree::ptree s_tree;
uint32_t s_instanceId = 0;

}  // namespace

const std::string& MainConfig::ConfigDir()
{
    return s_configDir;
}

const std::string& MainConfig::DefaultFile()
{
    return s_defaultFile;
}

boost::property_tree::ptree& MainConfig::Tree()
{
    return s_tree;
}

const std::string& MainConfig::FileName()
{
    return s_fileName;
}

void MainConfig::SetFileName(const std::string& fileName)
{
    s_fileName = fileName;
}

bool MainConfig::Load()
{
    FLOG_VERBOSE("Try loading config file: %1", s_fileName);
    try {
        boost::property_tree::read_xml(s_fileName, s_tree,
                                       boost::property_tree::xml_parser::no_comments |
                                           boost::property_tree::xml_parser::trim_whitespace,
                                       std::locale());
    } catch (const std::exception& error) {
        FLOG_ERROR("Failed loading config file: %1", error.what()).AddTag("errorCode:LCP00003");
        printf("-----------------------------------\n* Error *: FenREL start failed.\n  Configuration file ");
        printf("%s", s_fileName.c_str());
        printf(" is invalid!\n-----------------------------------\n");
        fflush(stdout);
        return false;
    }
    return true;
}

uint32_t MainConfig::GetInstanceId()
{
    return s_instanceId;
}

void MainConfig::SetInstanceId(uint32_t instanceId)
{
    s_instanceId = instanceId;
}

}  // namespace FenREL
