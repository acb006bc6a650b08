using System;
using System.Collections.Generic;
using System.IO;
using System.Runtime.CompilerServices;
using System.Threading;
using zopobsolete;

public sealed class DataLocationTest : IDisposable
{
    readonly string root = Path.Combine(Path.GetTempPath(), Guid.NewGuid().ToString("N"));
    string Source => root + "\\source";
    string Target => root + "\\target";

    public DataLocationTest()
    {
        Directory.CreateDirectory(Source + "\\inner");
        Directory.CreateDirectory(Target);
        for (int i = 0; i < 20; ++i)
        {
            File.WriteAllText(Source + "\\inner\\file " + i + " \u65E5\uD83D\uDE80", "content " + i);
        }
        File.WriteAllText(Source + "\\top", new string('x', 1000));
        File.WriteAllText(Target + "\\other", "there before"); // so the move has to copy
    }

    public void Dispose()
    {
        Directory.Delete(root, true);
    }

    void IsUntouched()
    {
        Check.Equal(20, Directory.GetFiles(Source + "\\inner").Length);
        Check.True(File.Exists(Source + "\\top"));
        Check.Equal("there before", File.ReadAllText(Target + "\\other"));
        Check.True(!Directory.Exists(Target + "\\inner"));
    }

    [Test]
    public void MovesWithProgressAndCommits()
    {
        using (var location = new DataLocation(StreamType.Data | StreamType.SecurityData, false))
        {
            Check.Equal(StreamType.Data | StreamType.SecurityData, location.CopyStreams);
            location.CopyStreams = 0;
            Check.Equal((StreamType)127, location.CopyStreams);
            long bytes = -1;
            var names = new List<string>();
            location.ProgressEvent_Cost += (int count, long cost, ref bool cancel) => bytes = bytes < 0 ? cost : bytes;
            location.ProgressEvent_Name += (string name, bool isFile, long cost, ref bool cancel) =>
            {
                names.Add(name);
                GC.Collect(); // delegates and contexts must be where they were
            };
            Check.True(location.Change(Source, Target));
            Check.Equal(1000L, bytes);
            Check.True(names.Exists(n => n.EndsWith("file 7 \u65E5\uD83D\uDE80")), names.Count);
            Check.Equal(0, location.Failed.Count);
            location.Commit();
            Check.Equal(0, location.LeftBehind.Length + location.PendingRestart.Length);
            Check.True(!Directory.Exists(Source));
            Check.Equal("content 7", File.ReadAllText(Target + "\\inner\\file 7 \u65E5\uD83D\uDE80"));
        }
    }

    [Test]
    public void AListenerCancelsOrFailsTheMoveAndRollbackRestores()
    {
        using (var location = new DataLocation())
        {
            DataLocation.ProgressNameDelegate cancels = (string name, bool isFile, long cost, ref bool cancel) => cancel = isFile;
            location.ProgressEvent_Name += cancels;
            Check.True(!location.Change(Source, Target));
            location.ProgressEvent_Name -= cancels;
            location.Rollback();
            IsUntouched();

            var thrown = new InvalidOperationException("the tool's own \u65E5");
            DataLocation.ProgressNameDelegate throws = (string name, bool isFile, long cost, ref bool cancel) => throw thrown;
            location.ProgressEvent_Name += throws;
            Exception failure = Check.Throws<Exception>(() => location.Change(Source, Target));
            Check.True(failure.Message.StartsWith("the tool's own \u65E5\n"), failure.Message);
            Check.True(ReferenceEquals(thrown, failure.InnerException));
            location.ProgressEvent_Name -= throws;
            location.Rollback();
            IsUntouched();
        }
    }

    [Test]
    public void FailedItemsAreOfferedAndListed()
    {
        Directory.CreateDirectory(Target + "\\inner\\file 3 \u65E5\uD83D\uDE80"); // in the way of a file
        using (var location = new DataLocation())
        {
            Check.Throws<Exception>(() => location.Change(Source, Target));
            location.Rollback();
            string message = null;
            location.ErrorEvent += e =>
            {
                message = e.message;
                e.ignore = true;
            };
            Check.True(location.Change(Source, Target));
            Check.Equal(1, location.Failed.Count);
            Check.True(((string)location.Failed[0]).Contains("file 3 "), location.Failed[0]);
            Check.True(!string.IsNullOrEmpty(message));
            location.Rollback();
        }
        Directory.Delete(Target + "\\inner", true);
        IsUntouched();
    }

    [Test]
    public void WrongUseIsAClearError()
    {
        var location = new DataLocation();
        Check.Equal("source", Check.Throws<ArgumentNullException>(() => location.Change(null, Target)).ParamName);
        Check.Equal("dest", Check.Throws<ArgumentException>(() => location.Change(Source, Target + "\0x")).ParamName);
        Exception absent = Check.Throws<Exception>(() => location.Change(root + "\\absent", Target));
        Check.True(absent.Message.Contains("at (zopobsolete::DataLocation::Change line "), absent.Message);
        location.Rollback();
        // A null reference in a listener is an access violation that belongs to the runtime.
        string nothing = root.Length > 0 ? null : "";
        location.ProgressEvent_Name += (string name, bool isFile, long cost, ref bool cancel) => name = nothing.Trim();
        Exception managed = Check.Throws<Exception>(() => location.Change(Source, Target));
        Check.True(managed.InnerException is NullReferenceException, managed);
        location.Rollback();
        location.Dispose();
        location.Dispose();
        Check.Throws<ObjectDisposedException>(() => location.Commit());
        IsUntouched();
    }

    [Test]
    public void DisposedByItsOwnListenerItEndsTheOperationFirst()
    {
        var location = new DataLocation();
        location.ProgressEvent_Name += (string name, bool isFile, long cost, ref bool cancel) => location.Dispose();
        Check.True(location.Change(Source, Target));
        Check.Throws<ObjectDisposedException>(() => location.Rollback());
        Check.True(Directory.Exists(Target + "\\inner"));
    }

    [Test]
    public void DroppedObjectsAreFinalisedWithoutHarm()
    {
        Drop(10000);
        GC.Collect();
        GC.WaitForPendingFinalizers();
        using (var location = new DataLocation())
        {
            Check.True(location.Change(Source, Target));
            location.Rollback();
        }
        IsUntouched();
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static void Drop(int count)
    {
        for (int i = 0; i < count; ++i)
        {
            new DataLocation().ProgressEvent_Cost += (int items, long cost, ref bool cancel) => cancel = true;
        }
    }
}
