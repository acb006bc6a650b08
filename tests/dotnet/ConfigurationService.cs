using System;
using System.Diagnostics;
using System.IO;

// The configuration service, for as long as the object lives.
public sealed class ConfigurationService : IDisposable
{
    readonly Process service;

    public ConfigurationService()
    {
        string program = Path.Combine(AppContext.BaseDirectory, "zopconfigsvc.exe");
        service = Process.Start(new ProcessStartInfo(program, "--console") { UseShellExecute = false, RedirectStandardOutput = true });
        service.StandardOutput.ReadLine(); // it serves from then on
    }

    public void Dispose()
    {
        service.Kill();
        service.WaitForExit();
    }
}
