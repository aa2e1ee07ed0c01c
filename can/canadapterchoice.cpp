#include "can/canadapterchoice.h"

#include <map>
#include <mutex>

#include "can/adapter/slcanadapter.h"
#include "can/adapter/socketcanadapter.h"
#include "core/settings.h"

namespace tessitor {
namespace {

constexpr char kMakerSlcan[] = "SLCAN";
constexpr char kMakerSocketCan[] = "SocketCAN";
constexpr char kBoardSection[] = "CanBoards";
constexpr char kBoardKeyPrefix[] = "slcan";
constexpr char kSlcanPrefix[] = "slcan:";
constexpr char kSocketCanPrefix[] = "socketcan:";
constexpr std::size_t kMaxBoardText = 31; // what the one-line form keeps

std::mutex g_csAdapters;
std::map<std::string, std::weak_ptr<CCanAdapter>> g_mapAdapters;

} // namespace

std::string CanAdapterChoice::Name() const
{
    return (eKind == CanAdapterKind::Slcan ? kSlcanPrefix : kSocketCanPrefix) + sDevice;
}

bool CanAdapterChoice::FromName(const std::string& text)
{
    for (auto [prefix, kind] : {std::pair{kSlcanPrefix, CanAdapterKind::Slcan},
                                std::pair{kSocketCanPrefix, CanAdapterKind::SocketCan}}) {
        std::string head(prefix);
        if (text.size() > head.size() && text.compare(0, head.size(), head) == 0) {
            eKind = kind;
            sDevice = text.substr(head.size());
            return true;
        }
    }
    return false;
}

CanAdapterChoice ChooseCanAdapter(const CCommunicationInfo& info, const Settings& settings)
{
    CanAdapterChoice choice;
    if (info.sManufacture == kMakerSlcan) {
        choice.eKind = CanAdapterKind::Slcan;
        choice.sDevice = info.sBoardType;
        if (auto mapped = settings.Get(kBoardSection, info.sBoardType); mapped && !mapped->empty())
            choice.sDevice = *mapped;
        else if (!info.sBoardType.empty() && info.sBoardType[0] != '/')
            choice.sDevice = "/dev/" + info.sBoardType;
    } else if (info.sManufacture == kMakerSocketCan) {
        choice.eKind = CanAdapterKind::SocketCan;
        choice.sDevice = info.sBoardType;
    } else {
        choice.eKind = CanAdapterKind::SocketCan;
        choice.sDevice = "can" + std::to_string(info.mCanNr);
    }
    return choice;
}

void SetCanAdapter(CCommunicationInfo& info, const CanAdapterChoice& choice, Settings& settings)
{
    info.sManufacture = choice.eKind == CanAdapterKind::Slcan ? kMakerSlcan : kMakerSocketCan;
    info.sBoardType = choice.sDevice;
    if (choice.eKind != CanAdapterKind::Slcan || choice.sDevice.size() <= kMaxBoardText)
        return;
    for (int n = 1;; ++n) {
        std::string key = kBoardKeyPrefix + std::to_string(n);
        auto mapped = settings.Get(kBoardSection, key);
        if (!mapped || *mapped == choice.sDevice) {
            settings.Set(kBoardSection, key, choice.sDevice);
            info.sBoardType = key;
            return;
        }
    }
}

std::shared_ptr<CCanAdapter> AcquireCanAdapter(const CanAdapterChoice& choice)
{
    std::lock_guard lock(g_csAdapters);
    std::weak_ptr<CCanAdapter>& slot = g_mapAdapters[choice.Name()];
    if (auto shared = slot.lock())
        return shared;
    std::shared_ptr<CCanAdapter> adapter;
    if (choice.eKind == CanAdapterKind::Slcan)
        adapter = std::make_shared<CSlcanAdapter>(choice.sDevice);
    else
        adapter = std::make_shared<CSocketCanAdapter>(choice.sDevice);
    slot = adapter;
    return adapter;
}

} // namespace tessitor
