using System;
using System.Collections.Generic;
using System.IO;
using zopobsolete;

public sealed class VirtualHostsLocationTest : IDisposable
{
    readonly ConfigurationService service = new ConfigurationService();
    readonly string root = Path.Combine(Path.GetTempPath(), Guid.NewGuid().ToString("N"));
    string Vhosts => root + "\\vhosts";

    public VirtualHostsLocationTest()
    {
        Directory.CreateDirectory(Vhosts + "\\example.com");
        Directory.CreateDirectory(root + "\\product");
        zop.getInstance()["HTTPD_VHOSTS_D"] = Vhosts;
        zop.getInstance()["PRODUCT_ROOT_D"] = root + "\\product";
    }

    public void Dispose()
    {
        service.Dispose();
        Directory.Delete(root, true);
    }

    void IsUntouched()
    {
        Check.Equal(Vhosts, zop.getInstance()["HTTPD_VHOSTS_D"]);
        Check.True(Directory.Exists(Vhosts + "\\example.com"));
        Check.True(!Directory.Exists(root + "\\new"));
    }

    [Test]
    public void AListenerCancelsAndRollbackRestores()
    {
        using (var location = new VirtualHostsLocation(StreamType.Data, true))
        {
            Check.Equal(StreamType.Data, location.CopyStreams);
            location.CopyStreams = 0;
            Check.Equal((StreamType)127, location.CopyStreams);
            var costs = new List<long>();
            ProgressCostDelegate cancels = cost =>
            {
                costs.Add(cost);
                GC.Collect();
                return true;
            };
            location.ProgressEvent_Cost += cancels;
            Exception canceled = Check.Throws<Exception>(() => location.Change(root + "\\new"));
            Check.True(canceled.Message.StartsWith("Canceled!"), canceled.Message);
            Check.True(location.Canceled);
            Check.Equal("1", string.Join(" ", costs));
            Check.Equal(0, location.Failed.Count);
            Check.True(!location.Rollback());
            location.ProgressEvent_Cost -= cancels;

            var thrown = new InvalidOperationException("the tool's own");
            location.ProgressEvent_Name += (name, val, completeCount, itemSize) => throw thrown;
            Exception failed = Check.Throws<Exception>(() => location.Change(Vhosts, root + "\\new"));
            Check.True(failed.Message.StartsWith("the tool's own\n"), failed.Message);
            Check.True(ReferenceEquals(thrown, failed.InnerException));
            Check.True(!location.Canceled);
            location.Rollback();
            Check.Equal(0, location.LeftBehind.Length + location.PendingRestart.Length);
        }
        IsUntouched();
    }

    [Test]
    public void EventsAreRaisedByName()
    {
        var heard = new List<string>();
        var location = new VirtualHostsLocation();
        Check.True(!location.Fire_ProgressEvent_Cost(1));
        location.ProgressEvent_Cost += cost => cost == 7;
        location.ProgressEvent_Name += (name, val, completeCount, itemSize) => name == "a" && val + completeCount + itemSize == 6;
        location.SubProgressEvent_Start += () => true;
        location.SubProgressEvent_End += () => false;
        location.ErrorEvent += heard.Add;
        location.IgnorebleErrorEvent += error => error.ignore = true;
        Check.True(location.Fire_ProgressEvent_Cost(7) && location.Fire_ProgressEvent_Name("a", 1, 2, 3));
        Check.True(location.Fire_SubProgressEvent_Start() && !location.Fire_SubProgressEvent_End());
        location.Fire_ErrorEvent("text");
        Check.Equal("text", heard[0]);
        var offered = new BackupCopyErrorEvent("item", false);
        location.Fire_IgnorebleErrorEvent(offered);
        Check.True(offered.ignore && offered.message == "item");
        Check.Equal("dest", Check.Throws<ArgumentNullException>(() => location.Change(null)).ParamName);
        Check.Equal("source", Check.Throws<ArgumentNullException>(() => location.Change(null, Vhosts)).ParamName);
        location.Dispose();
        Check.Throws<ObjectDisposedException>(() => location.Rollback());
    }
}
