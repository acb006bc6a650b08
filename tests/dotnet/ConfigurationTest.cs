using System;
using System.Diagnostics;
using System.IO;
using zopobsolete;

public sealed class ConfigurationTest : IDisposable
{
    readonly ConfigurationService service = new ConfigurationService();
    readonly zop panel = zop.getInstance();

    public void Dispose()
    {
        service.Dispose();
    }

    [Test]
    public void ValuesOfEveryKindComeBackAsTheyWereSet()
    {
        Check.True(ReferenceEquals(panel, zop.getInstance()));
        panel.init();
        foreach (string text in new[] { "", "C:\\vhosts\\", "\u65E5\u672C \uD83D\uDE80 %s", new string('x', 20000) })
        {
            panel["DotNetTest"] = text;
            Check.Equal(text, panel["DotNetTest"]);
        }
        panel["FTPPassword"] = "gehe\u00EDm";
        Check.Equal("gehe\u00EDm", panel["FTPPassword"]);
        foreach (uint number in new[] { 0u, 7u, uint.MaxValue })
        {
            panel.ConfigDWORD["DotNetNumber"] = number;
            Check.Equal(number, panel.ConfigDWORD["DotNetNumber"]);
        }
        panel.ConfigDWORD["VirtualEnvironment"] = 1;
        Check.True(panel.isVPS);
        Check.Equal("user", panel.getUserNameWithoutDomain("DOMAIN\\user"));
        Check.Equal("", panel.getUserDomainServerName());
        panel.done();
        panel.Dispose();
        Check.Equal(7u, panel.ConfigDWORD["DotNetNumber"] & 7u);
    }

    [Test]
    public void FailuresAreExceptionsWithTheWholeText()
    {
        Exception missing = Check.Throws<Exception>(() => panel["Absent"].ToString());
        Check.True(missing.Message.StartsWith("Unable to call getString(Absent)"), missing.Message);
        Check.True(missing.Message.Contains("at (zopobsolete::zop::Item::get line 91)"), missing.Message);
        Check.Throws<Exception>(() => panel.ConfigDWORD["Absent"].ToString());
        Check.Equal("name", Check.Throws<ArgumentNullException>(() => panel[null].ToString()).ParamName);
        Check.Equal("value", Check.Throws<ArgumentNullException>(() => panel["x"] = null).ParamName);
        Check.Equal("arguments", Check.Throws<ArgumentNullException>(() => panel.execBinUtil("a.exe", "x", null)).ParamName);
    }

    [Test]
    public void UtilitiesRunAndSayWhatTheyPrinted()
    {
        string root = Path.Combine(Path.GetTempPath(), "panel root " + Process.GetCurrentProcess().Id);
        Directory.CreateDirectory(root + "\\admin\\bin");
        File.Copy(Path.Combine(AppContext.BaseDirectory, "zopctl.exe"), root + "\\admin\\bin\\tool.exe");
        panel["PRODUCT_ROOT_D"] = root;
        Check.True(panel.execBinUtil("tool.exe", "--help").StartsWith("zopctl looks after"));
        Exception refused = Check.Throws<Exception>(() => panel.execBinUtil("tool.exe", "no \"such\" command\\"));
        Check.True(refused.Message.Contains("no \"such\" command\\"), refused.Message);
        Check.Throws<Exception>(() => panel.execBinUtil("..\\tool.exe"));
        try
        {
            Directory.Delete(root, true);
        }
        catch (IOException) // the last process may still be going
        {
        }
    }
}
