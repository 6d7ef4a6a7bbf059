#include "NewVirtualNetwork.h"

#include <algorithm>

namespace FenREL {

bool NewVirtualNetwork::AddInstance(const Instance& instance)
{
    if (FindInstance(instance)) {
        return false;
    }
    _instances.push_back(instance);
    return true;
}

bool NewVirtualNetwork::DelInstance(const Instance& instance)
{
    const auto found = std::find(_instances.begin(), _instances.end(), instance);
    if (found == _instances.end()) {
        return false;
    }
    _instances.erase(found);
    return true;
}

bool NewVirtualNetwork::FindInstance(const Instance& instance) const
{
    return std::find(_instances.begin(), _instances.end(), instance) != _instances.end();
}

}  // namespace FenREL
