#include "utility/cnfserver.h"

#include <gtest/gtest.h>

using utility::cnfserver;

TEST(Cnfserver, EndpointAndTrigger)
{
    EXPECT_EQ(cnfserver::base, "http://127.0.0.1:4321/");
    EXPECT_EQ(cnfserver::trigger, "?runtriggers=true");
    EXPECT_EQ(cnfserver::toString("installation/installation_id"),
        "http://127.0.0.1:4321/installation/installation_id");
}

TEST(Cnfserver, InstallationKeys)
{
    using g = cnfserver::installation_o;
    EXPECT_EQ(g::base, "installation/");
    EXPECT_EQ(g::toString(g::installation_id), "installation/installation_id");
    EXPECT_EQ(g::toString(g::mqtt_devices), "installation/mqtt_devices");
    EXPECT_EQ(g::toString(g::cloud_enabled), "installation/cloud_enabled");
    EXPECT_EQ(g::toString(g::master_version), "installation/master_version");
    EXPECT_EQ(g::toString(g::master), "installation/master");
    EXPECT_EQ(g::toString(g::master_model), "installation/master_model");
    EXPECT_EQ(g::cloud_o::base, "cloud/");
    EXPECT_EQ(g::cloud_o::cloud_api_token, "cloud_api_token");
    EXPECT_EQ(
        g::cloud_o::toString(g::cloud_o::cloud_api_token), "installation/cloud/cloud_api_token");
}

TEST(Cnfserver, StaticKeys)
{
    using s = cnfserver::statics_o;
    EXPECT_EQ(s::base, "static/");
    EXPECT_EQ(s::toString("x"), "static/x/");
    EXPECT_EQ(s::kzrconf_o::toString(s::kzrconf_o::serial), "static/kzrconf/serial/");
    EXPECT_EQ(s::device_o::toString(s::device_o::product_code), "static/device/product_code/");
    EXPECT_EQ(s::device_o::toString(s::device_o::product_name), "static/device/product_name/");
    EXPECT_EQ(s::device_o::toString(s::device_o::version), "static/device/version/");
    EXPECT_EQ(s::orvane_o::toString(s::orvane_o::comunication), "static/orvane/comunication/");
    EXPECT_EQ(s::orvane_o::toString(s::orvane_o::zeroconf), "static/orvane/zeroconf/");
    EXPECT_EQ(s::orvane_o::comunication_o::base, "comunication/");
    EXPECT_EQ(s::orvane_o::comunication_o::toString("mqtt"), "static/orvane/comunication/mqtt/");
    EXPECT_EQ(s::orvane_o::comunication_o::global_o::toString(
                  s::orvane_o::comunication_o::global_o::installation_id),
        "static/orvane/comunication/global/installation_id/");
    using p = s::orvane_o::paths_o;
    EXPECT_EQ(p::toString(p::cacerts), "static/orvane/paths/cacerts/");
    EXPECT_EQ(p::toString(p::plugins), "static/orvane/paths/plugins/");
    EXPECT_EQ(p::toString(p::logs), "static/orvane/paths/logs/");
    EXPECT_EQ(p::toString(p::client_communication), "static/orvane/paths/client_communication/");
    EXPECT_EQ(p::toString(p::system_ca_certs), "static/orvane/paths/system_ca_certs/");
    using u = s::orvane_o::urls_o;
    EXPECT_EQ(u::toString(u::cloud_service), "static/orvane/urls/cloud_service/");
    EXPECT_EQ(u::toString(u::cloud_web), "static/orvane/urls/cloud_web/");
    EXPECT_EQ(s::mosquitto_o::toString(s::mosquitto_o::mqtt_cloud_url),
        "static/mosquitto/mqtt_cloud_url/");
}

TEST(Cnfserver, RealtimeAndOrvaneKeys)
{
    using r = cnfserver::realtime_o;
    EXPECT_EQ(r::base, "realtime/");
    EXPECT_EQ(r::orvane_o::base, "orvane/");
    EXPECT_EQ(r::orvane_o::toString(r::orvane_o::database), "realtime/orvane/database/");
    EXPECT_EQ(r::orvane_o::database_o::toString(r::orvane_o::database_o::installation),
        "realtime/orvane/database/installation/");
    using o = cnfserver::orvane_o;
    EXPECT_EQ(o::base, "orvane/");
    EXPECT_EQ(o::toString(o::database), "orvane/database/");
    EXPECT_EQ(o::toString(o::presencesimulation), "orvane/presencesimulation/");
    EXPECT_EQ(o::toString(o::preserved_realtime), "orvane/preserved_realtime/");
    EXPECT_EQ(o::toString(o::baos_stick_params), "orvane/baos_stick_params/");
}
