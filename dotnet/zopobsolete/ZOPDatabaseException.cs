using System;

namespace zopobsolete
{
    /// <summary>A failure of the database classes, with the whole text.</summary>
    public class ZOPDatabaseException : Exception
    {
        /// <summary>Makes one with a text.</summary>
        public ZOPDatabaseException(string message) : base(message)
        {
        }

        /// <summary>Makes one with a text and what it came from.</summary>
        public ZOPDatabaseException(string message, Exception innerException) : base(message, innerException)
        {
        }
    }
}
