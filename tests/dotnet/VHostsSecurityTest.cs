using System;
using System.Collections.Generic;
using System.IO;
using Microsoft.Win32;
using zopobsolete;

public sealed class VHostsSecurityTest : IDisposable
{
    const string Key = "SOFTWARE\\Tarvo\\ZOP Config\\Config";
    readonly string vhosts = Path.Combine(Path.GetTempPath(), Guid.NewGuid().ToString("N"));
    string Root => vhosts + "\\example.com";

    public VHostsSecurityTest()
    {
        Directory.CreateDirectory(vhosts);
        using (RegistryKey hive = RegistryKey.OpenBaseKey(RegistryHive.LocalMachine, RegistryView.Registry32))
        using (RegistryKey key = hive.CreateSubKey(Key))
        {
            key.SetValue("HTTPD_VHOSTS_D", vhosts);
        }
    }

    public void Dispose()
    {
        Directory.Delete(vhosts, true);
    }

    [Test]
    public void AForwardingDomainIsCheckedAndHeardOf()
    {
        File.WriteAllText(Root, "in the way");
        using (var security = new VHostsSecurity(Root))
        {
            Check.True(Directory.Exists(Root));
            File.WriteAllText(Root + "\\index.html \u65E5", "");
            var paths = new List<string>();
            var found = new List<string>();
            security.Progress += paths.Add;
            security.SecurityException += (path, text) => found.Add(path + ": " + text);
            security.CheckFrameForwardingPermissions(VHostsSecurity.CheckPermissionsFlags.ReadOnly);
            Check.True(paths.Contains(Root + "\\index.html \u65E5"), string.Join(", ", paths));
            Check.True(found.Count > 0);
            Check.Equal("", security.UndoFile);
            Check.Equal(0L, security.RepairedCount);
            Check.Throws<Exception>(() => security.InspectPermissions(VHostsSecurity.HostingType.Webuser, "w1", ""));
            var thrown = new InvalidOperationException("enough");
            security.Progress += path => throw thrown;
            Exception failure = Check.Throws<Exception>(
                () => security.CheckFrameForwardingPermissions(VHostsSecurity.CheckPermissionsFlags.ReadOnly));
            Check.True(ReferenceEquals(thrown, failure.InnerException), failure);
        }
    }

    [Test]
    public void WrongUseIsAClearError()
    {
        Check.Equal("web", VHostsSecurity.translateHostingType(VHostsSecurity.HostingType.Webuser));
        Check.Equal("domain", VHostsSecurity.translateHostingType((VHostsSecurity.HostingType)5));
        Check.Equal("root", Check.Throws<ArgumentNullException>(() => new VHostsSecurity(null)).ParamName);
        string elsewhere = Path.Combine(Path.GetTempPath(), "elsewhere");
        Check.Throws<Exception>(() => new VHostsSecurity(elsewhere));
        Check.True(!Directory.Exists(elsewhere));
        var security = new VHostsSecurity(Root);
        Check.Equal("user", Check.Throws<ArgumentNullException>(() => security.CheckPermissions(
            VHostsSecurity.HostingType.Domain, null, null, VHostsSecurity.CheckPermissionsFlags.None)).ParamName);
        Exception noDatabase = Check.Throws<Exception>(() => security.CheckPermissions(
            VHostsSecurity.HostingType.Domain, "d1", null, VHostsSecurity.CheckPermissionsFlags.None));
        Check.True(noDatabase.Message.Contains("(zopobsolete::VHostsSecurity::CheckPermissions line "), noDatabase.Message);
        security.Dispose();
        Check.Throws<ObjectDisposedException>(() => security.UndoFile.ToString());
    }
}
