namespace zopobsolete
{
    /// <summary>What an error listener is told, and what it answers.</summary>
    public class BackupCopyErrorEvent
    {
        /// <summary>Makes one without a message, not to be ignored.</summary>
        public BackupCopyErrorEvent()
        {
        }

        /// <summary>Makes one with a message.</summary>
        public BackupCopyErrorEvent(string msg, bool val)
        {
            message = msg;
            ignore = val;
        }

        /// <summary>What failed, and why.</summary>
        public string message;

        /// <summary>Set by a listener to pass over the failed item and go on.</summary>
        public bool ignore;
    }

    /// <summary>An item of a data directory failed.</summary>
    public delegate void ErrorDelegate(BackupCopyErrorEvent ee);

    /// <summary>An amount of work lies ahead.</summary>
    /// <returns>True to cancel.</returns>
    public delegate bool ProgressCostDelegate(long cost);

    /// <summary>A step or an item is worked on.</summary>
    /// <param name="name">What it is called.</param>
    /// <param name="val">The amount of work announced so far.</param>
    /// <param name="completeCount">How many names there have been.</param>
    /// <param name="itemSize">The bytes of the item before, or -1 where that is not known.</param>
    /// <returns>True to cancel.</returns>
    public delegate bool ProgressNameDelegate(string name, long val, int completeCount, long itemSize);

    /// <summary>A unit of work of its own begins: the home of one user.</summary>
    /// <returns>True to cancel.</returns>
    public delegate bool SubProgressStartDelegate();

    /// <summary>A unit of work of its own has ended.</summary>
    /// <returns>True to cancel.</returns>
    public delegate bool SubProgressEndDelegate();

    /// <summary>Something went wrong that does not fail the operation.</summary>
    public delegate void MsgErrorDelegate(string msg);

    /// <summary>An item failed. A listener sets ignore to go on.</summary>
    public delegate void IgnorebleErrorDelegate(BackupCopyErrorEvent ee);
}
